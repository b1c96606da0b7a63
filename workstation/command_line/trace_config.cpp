#include "workstation/command_line/trace_config.h"

#include <fmt/core.h>

#include <algorithm>
#include <bit>
#include <cctype>
#include <cstring>
#include <numeric>
#include <string_view>

#include "workstation/command_line/options.h"
#include "workstation/command_line/program.h"

namespace qel::vexa::command_line {

namespace {

// The service takes the trace out of the buffer and into the file every so often, so that the buffer need not
// hold a whole recording. At the shortest period all counters of the largest table make 5 MB a second.
constexpr unsigned buffer_kb = 32768;
constexpr unsigned file_write_period_ms = 2000;

// Between producer and service: larger than what they agree on by themselves, so that they wake each other
// less often.
constexpr unsigned shared_page_kb = 32;
constexpr unsigned shared_memory_kb = 1024;

// The first line of the free text; a line with id and name for each counter follows.
constexpr const char* names_heading = "counter names";

// Which GPUs have these counters: for one of the tables those of all products with it.
std::string gpus_of(const gpu& of) {
    std::vector<std::string> products;
    std::string ids;
    for (const gpu& each : all_gpus()) {
        if (each.table == of.table) {
            products.push_back(std::to_string(static_cast<std::uint32_t>(*each.product)));
            for (const std::uint32_t id : gpu_ids(*each.product)) {
                ids += fmt::format(" {:#x}", id);
            }
        }
    }
    return products.empty() ? "GPUs that offer these counters alone"
                            : fmt::format("product{} {} alone: GPU ids{}", products.size() == 1 ? "" : "s",
                                          joined(products, ", "), ids);
}

// A text within quotes of the text form.
std::string in_quotes(const std::string& text) {
    std::string result;
    for (const char c : text) {
        result += c == '\n' ? "\\n" : (c == '"' || c == '\\' ? "\\" : "") + std::string(1, c);
    }
    return "\"" + result + "\"";
}

// What the values of a sample take in a trace: each one tag and length, its id behind a tag, and a
// floating-point number behind a tag.
std::size_t value_bytes(const std::vector<counter>& counters) {
    return std::accumulate(counters.begin(), counters.end(), std::size_t{0},
                           [](std::size_t sum, const counter& each) {
                               const auto id_bits = static_cast<std::size_t>(std::bit_width(each.id | 1U));
                               return sum + 2 + 1 + (id_bits + 6) / 7 + 1 + sizeof(double);
                           });
}

double kilobytes_a_second(std::size_t bytes_of_sample, const recording& how) {
    return static_cast<double>(bytes_of_sample) / static_cast<double>(how.period_ms);
}

}  // namespace

void add_recording_options(options& table, recording& how, recording_given& given) {
    table.number("-p,--period", "MS",
                 fmt::format("milliseconds between samples, {} to {} (default {})", min_period_ms,
                             max_period_ms, how.period_ms),
                 min_period_ms, max_period_ms, [&how, &given](std::uint64_t value) {
                     how.period_ms = value;
                     given.period = true;
                 });
    table.number("-t,--duration", "S",
                 fmt::format("seconds to record, up to {}, a week (default {}); 0 records until stopped",
                             max_duration_s, how.duration_s),
                 0, max_duration_s, [&how, &given](std::uint64_t value) {
                     how.duration_s = value;
                     given.duration = true;
                 });
}

void add_operands_option(options& table, bool& wanted) {
    table.flag("-O,--with-operands",
               "record what the derived counters are worked out from as well, so that the report has them "
               "over any time and not just their samples; says what that costs",
               wanted);
}

std::vector<counter> add_operands(const gpu& of, const std::vector<counter>& chosen, const recording& how) {
    if (of.table == 0) {
        complain("what the counters of " + of.name + " are worked out from is not known: nothing is added");
        return chosen;
    }
    std::vector<counter> result = with_operands(of, chosen);
    const std::size_t before = value_bytes(chosen);
    const std::size_t after = value_bytes(result);
    complain(fmt::format(
        "with operands {} counters instead of {}: the values of a sample take {} bytes instead of {}, "
        "those of a second {:.1f} kB instead of {:.1f}",
        result.size(), chosen.size(), after, before, kilobytes_a_second(after, how),
        kilobytes_a_second(before, how)));
    return result;
}

std::string trace_config(const gpu& of, const std::vector<counter>& counters, const recording& how) {
    std::string ids;
    std::string names = names_heading;
    for (const counter& each : counters) {
        ids += fmt::format("      counter_ids: {}  # {}\n", each.id, each.name);
        names += fmt::format("\n{} {}", each.id, each.name);
    }
    return fmt::format("# {} GPU counter{}, a sample every {} ms.\n", counters.size(),
                       counters.size() == 1 ? "" : "s", how.period_ms) +
           fmt::format("# For {}.\n", gpus_of(of)) +
           "# Record with: perfetto --txt -c THIS_FILE -o TRACE\n"
           "# counterfeed-record --config THIS_FILE checks first that the ids have these names on the "
           "device.\n" +
           fmt::format("buffers {{ size_kb: {} fill_policy: RING_BUFFER }}\n", buffer_kb) +
           (how.duration_s != 0 ? fmt::format("duration_ms: {}\n", how.duration_s * 1000) : "") +
           fmt::format("write_into_file: true\nfile_write_period_ms: {}\n", file_write_period_ms) +
           (of.producer.empty() ? "# Samples cost the device less with this, and the launcher's command as "
                                  "it was started:\n# "
                                : "") +
           fmt::format("producers {{ producer_name: {} page_size_kb: {} shm_size_kb: {} }}\n",
                       in_quotes(of.producer.empty() ? "LAUNCHER" : of.producer), shared_page_kb,
                       shared_memory_kb) +
           fmt::format(
               "data_sources {{\n"
               "  config {{\n"
               "    name: \"gpu.counters\"\n"
               "    gpu_counter_config {{\n"
               "      counter_period_ns: {}\n"
               "{}"
               "    }}\n"
               "    legacy_config: {}\n"
               "  }}\n"
               "}}\n",
               how.period_ms * 1'000'000, ids, in_quotes(names));
}

std::map<std::uint32_t, std::string> counters_in_config(const std::string& text) {
    static constexpr std::string_view field = "counter_ids", blanks = " \t\r\n";
    // A place behind the text is one of no characters.
    const auto skip = [&text](std::string_view characters, std::size_t from) {
        return std::min(text.find_first_not_of(characters, from), text.size());
    };
    std::map<std::uint32_t, std::string> result;
    for (std::size_t at = text.find(field); at != std::string::npos; at = text.find(field, at)) {
        const bool within_word =
            at > 0 && (std::isalnum(static_cast<unsigned char>(text[at - 1])) != 0 || text[at - 1] == '_');
        at = skip(blanks, at + field.size());
        if (within_word || text.substr(at, 1) != ":") {
            continue;
        }
        at = skip(blanks, at + 1);
        const std::size_t end = skip("0123456789abcdefABCDEFxX", at);
        const auto number = parse_number(text.substr(at, end - at), UINT32_MAX);
        at = skip(" \t", end);
        if (!number) {
            continue;
        }
        std::string& name = result[static_cast<std::uint32_t>(*number)];
        if (text.substr(at, 1) == "#") {
            const std::size_t begin = skip(" \t", at + 1);
            at = std::min(text.find('\n', at), text.size());
            name = begin < at ? text.substr(begin, at - begin) : "";
            name.erase(name.find_last_not_of(" \t\r") + 1);
        } else {
            name.clear();
        }
    }
    return result;
}

std::vector<std::string> faults_of_config(const std::string& text, const gpu& on) {
    std::vector<std::string> faults;
    for (const auto& [id, name] : counters_in_config(text)) {
        const auto with_id = std::find_if(on.counters.begin(), on.counters.end(),
                                          [id = id](const counter& each) { return each.id == id; });
        const auto with_name =
            std::find_if(on.counters.begin(), on.counters.end(),
                         [&name = name](const counter& each) { return each.name == name; });
        if (with_id != on.counters.end() && (name.empty() || with_id->name == name)) {
            continue;
        }
        std::string fault = name.empty() ? fmt::format("{}", id) : fmt::format("{} \"{}\"", id, name);
        fault += with_id != on.counters.end() ? fmt::format(" is \"{}\" on {}", with_id->name, on.name)
                                              : fmt::format(" is no counter of {}", on.name);
        if (with_name != on.counters.end()) {
            fault += fmt::format(", which has the name as {}", with_name->id);
        } else if (!name.empty()) {
            fault += ", which has no counter of the name";
        }
        faults.push_back(fault);
    }
    return faults;
}

}  // namespace qel::vexa::command_line
