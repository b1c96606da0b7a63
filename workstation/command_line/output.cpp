#include "workstation/command_line/output.h"

#include <fmt/core.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <sstream>
#include <vector>

namespace qel::vexa::command_line {

namespace {

using nlohmann::ordered_json;

std::string text_of(const ordered_json& value) {
    if (value.is_string()) {
        return value.get<std::string>();
    }
    if (value.is_boolean()) {
        return value.get<bool>() ? "yes" : "";
    }
    if (value.is_number_float()) {
        return fmt::format("{:.17g}", value.get<double>());
    }
    if (value.is_array()) {
        std::string list;
        for (const ordered_json& item : value) {
            list += (list.empty() ? "" : " ") + text_of(item);
        }
        return list;
    }
    return value.dump();
}

void print_csv(const rows& data) {
    const auto print_line = [](const ordered_json& row, auto field_of) {
        const char* separator = "";
        for (const auto& [key, value] : row.items()) {
            std::printf("%s%s", separator, csv_field(field_of(key, value)).c_str());
            separator = ",";
        }
        std::puts("");
    };
    if (!data.empty()) {
        print_line(data.front(), [](const std::string& key, const ordered_json&) { return key; });
    }
    for (const ordered_json& row : data) {
        print_line(row, [](const std::string&, const ordered_json& value) { return text_of(value); });
    }
}

void print_table(const rows& data, std::initializer_list<const char*> columns) {
    struct column {
        std::vector<std::string> cells;  // the first is the name
        std::size_t width = 0;
        bool to_the_right = false;
    };
    std::vector<column> table;
    for (const char* const name : columns) {
        column& next = table.emplace_back();
        next.cells.emplace_back(name);
        for (const ordered_json& row : data) {
            next.cells.push_back(text_of(row.at(name)));
            next.to_the_right = row.at(name).is_number();
        }
        for (const std::string& cell : next.cells) {
            next.width = std::max(next.width, cell.size());
        }
    }
    const std::size_t edge = terminal_width();
    for (std::size_t i = 0; i <= data.size(); ++i) {
        std::string line;
        for (const column& each : table) {
            line += each.to_the_right ? fmt::format("{:>{}}  ", each.cells[i], each.width)
                                      : fmt::format("{:<{}}  ", each.cells[i], each.width);
        }
        line.erase(line.find_last_not_of(' ') + 1);
        if (edge > 3 && line.size() > edge) {
            line.replace(edge - 3, std::string::npos, "...");
        }
        std::puts(line.c_str());
    }
}

}  // namespace

void print(const rows& data, format how, std::initializer_list<const char*> table_columns) {
    switch (how) {
        case format::table:
            print_table(data, table_columns);
            break;
        case format::json:
            std::puts(data.dump(2).c_str());
            break;
        case format::csv:
            print_csv(data);
            break;
    }
}

void print(const std::string& text) {
    std::fputs(text.c_str(), stdout);
}

std::string joined(const std::vector<std::string>& texts, const std::string& separator) {
    std::string result;
    for (const std::string& text : texts) {
        result += &text == &texts.front() ? text : separator + text;
    }
    return result;
}

std::string csv_field(const std::string& text) {
    if (text.find_first_of(",\"\r\n") == std::string::npos) {
        return text;
    }
    std::string result = "\"";
    for (const char c : text) {
        result += c == '"' ? "\"\"" : std::string(1, c);
    }
    return result + '"';
}

std::size_t terminal_width() {
    winsize size{};
    return ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

std::string wrapped(const std::string& paragraph, std::size_t width) {
    std::istringstream words(paragraph);
    std::string result;
    std::size_t used = 0;
    for (std::string word; words >> word;) {
        if (used != 0) {
            const bool fits = used + 1 + word.size() <= width;
            result += fits ? ' ' : '\n';
            used = fits ? used + 1 : 0;
        }
        result += word;
        used += word.size();
    }
    return result + '\n';
}

}  // namespace qel::vexa::command_line
