#include "tests/support/tool.h"

#include <sstream>

#include "tests/support/process.h"

namespace test_support {

tool_result run_tool(const std::string& program, const std::vector<std::string>& arguments,
                     const std::string& input, const std::string& output) {
    const temporary_folder folder;
    const std::string out = output.empty() ? folder.file("out") : output;
    const std::string err = folder.file("err");
    process_setup setup{
        .command = {"/bin/sh", "-c", R"(in=$1 out=$2 err=$3; shift 3; exec "$@" <$in >$out 2>$err)", "sh",
                    input, out, err},
        .environment = {},
        .preload = {},
        .output = {}};
    setup.command.push_back(program);
    setup.command.insert(setup.command.end(), arguments.begin(), arguments.end());
    const int status = run(setup);
    return {.status = status, .out = output.empty() ? read_file(out) : "", .err = read_file(err)};
}

std::string shown_on_terminal(const std::string& command, unsigned columns) {
    return run_tool("/usr/bin/script",
                    {"-qec", "stty cols " + std::to_string(columns) + "; " + command, "/dev/null"})
        .out;
}

std::vector<std::string> words_of(const std::string& text) {
    std::vector<std::string> words;
    std::istringstream stream(text);
    for (std::string word; std::getline(stream, word, '|');) {
        words.push_back(word);
    }
    return words;
}

std::vector<std::vector<std::string>> read_csv(const std::string& text) {
    std::vector<std::vector<std::string>> lines(1, {""});
    bool quoted = false;
    for (const char c : text) {
        std::string& field = lines.back().back();
        if (c == '"') {
            // The second of two quotes in a quoted field stands for itself: it opens the field again.
            quoted = !quoted;
            field += quoted && !field.empty() ? "\"" : "";
        } else if (c == ',' && !quoted) {
            lines.back().emplace_back();
        } else if (c == '\n' && !quoted) {
            lines.emplace_back(1, "");
        } else {
            field += c;
        }
    }
    lines.pop_back();  // behind the last line's end
    return lines;
}

}  // namespace test_support
