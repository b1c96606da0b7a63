// counterfeed-counters: which counters a GPU has, what they mean, and trace configs that record them.

#include <fmt/core.h>
#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <iterator>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "workstation/command_line/catalogue.h"
#include "workstation/command_line/device.h"
#include "workstation/command_line/options.h"
#include "workstation/command_line/output.h"
#include "workstation/command_line/program.h"
#include "workstation/command_line/trace_config.h"

namespace {

using namespace qel::vexa::command_line;  // NOLINT(google-build-using-namespace)

constexpr std::size_t page_width = 80;  // of text that goes to no terminal

enum class action { list, details, config, list_gpus };

struct request {
    std::optional<gpu> of;
    std::vector<std::string> names;
    std::vector<std::string> words;
    std::optional<std::string> unit;
    std::optional<std::string> block;
    bool by_default = false;
    bool raw = false;
    bool derived = false;
    action what = action::list;
    format how = format::table;
    recording timing;
    bool operands = false;
    std::string preset;

    bool has_filter() const {
        return !preset.empty() || !words.empty() || unit || block || by_default || raw || derived;
    }
};

// What the shell completes a GPU to.
std::vector<std::string> known_ids() {
    std::vector<std::string> result;
    for (const gpu& each : all_gpus()) {
        for (const std::uint32_t id : gpu_ids(*each.product)) {
            result.push_back(fmt::format("{:#x}", id));
        }
    }
    return result;
}

void set_action(request& asked, action what) {
    if (asked.what != action::list && asked.what != what) {
        fail_usage("--details, --config and --gpus exclude each other");
    }
    asked.what = what;
}

bool same_word(const std::string& a, const std::string& b) {
    return ::strcasecmp(a.c_str(), b.c_str()) == 0;
}

// The block in its own spelling, in which an option may have hyphens for the blanks.
std::string block_argument(std::string text) {
    std::replace(text.begin(), text.end(), '-', ' ');
    for (const std::string& name : block_names()) {
        if (same_word(name, text)) {
            return name;
        }
    }
    fail_usage("unknown block \"" + text +
               "\": there are job-manager, tiler, memory-system, shader-core and gpu");
}

// Checks against the units that any GPU has, so that a slip is told from a unit that this GPU lacks.
void check_unit(const std::string& unit, const gpu& of) {
    std::vector<gpu> all = all_gpus();
    all.push_back(of);
    const bool is_known = std::any_of(all.begin(), all.end(), [&unit](const gpu& each) {
        return std::any_of(each.counters.begin(), each.counters.end(),
                           [&unit](const counter& which) { return has_unit(which, unit); });
    });
    if (!is_known) {
        fail_usage("unknown unit \"" + unit +
                   "\": there are byte, pixel, percent, primitive, fragment, instruction and none");
    }
}

void add_words(std::vector<std::string>& words, const std::string& text) {
    std::istringstream stream(text);
    words.insert(words.end(), std::istream_iterator<std::string>(stream), {});
}

bool contains_word(const std::string& text, const std::string& word) {
    return ::strcasestr(text.c_str(), word.c_str()) != nullptr;
}

request read_command_line(int argument_count, char** arguments) {
    request result;
    recording_given timing;
    options table(
        {"--gpu GPU [OPTION...] [NAME...]", "--device STATE [OPTION...] [NAME...]", "--gpus [--json|--csv]"},
        "Lists the counters of a GPU. A single counter is shown in full. NAME is a counter's name in "
        "any case, its hardware name, its id, or a pattern such as 'Fragment*'; a word that is none of "
        "these finds all counters with it in their names. Without NAME, all counters are meant.",
        "Exit status: 0 success, 1 a name or filter that fits no counter, or a device that offers "
        "none, 2 wrong usage.");
    table.section("Whose counters");
    table.value(
        "-g,--gpu", "GPU", "those of a GPU by its product number or id, such as 0x9002",
        [&result](const std::string& text) { result.of = gpu_argument(text); }, known_ids());
    table.value(
        "-i,--device", "STATE",
        "those that a tracing service offers, of a GPU of any make: a file or pipe with the output of "
        "'perfetto --query-raw', - for standard input, or the service's consumer socket",
        [&result](const std::string& text) {
            if (result.of) {
                fail_usage("--gpu and --device exclude each other");
            }
            result.of = device_argument(text);
        });
    table.flag("-G,--gpus", "list the GPUs that --gpu takes",
               [&result] { set_action(result, action::list_gpus); });
    table.section("Which of them");
    table.value("-P,--preset", "PRESET", "those for a topic: " + joined(preset_names(), ", "), result.preset,
                preset_names());
    table.value("-s,--search", "WORDS", "with all of these words in name or description; may be repeated",
                [&result](const std::string& text) { add_words(result.words, text); });
    table.value("-u,--unit", "UNIT",
                "in this unit: byte, pixel, percent, primitive, fragment, instruction, none",
                [&result](const std::string& text) { result.unit = text; },
                {"byte", "pixel", "percent", "primitive", "fragment", "instruction", "none"});
    table.value(
        "-b,--block", "BLOCK",
        "of this hardware block: job-manager, tiler, memory-system, shader-core, gpu; a derived counter "
        "belongs to the block of the first counter in its expression",
        [&result](const std::string& text) { result.block = block_argument(text); },
        {"job-manager", "tiler", "memory-system", "shader-core", "gpu"});
    table.flag("-d,--default", "selected by default", result.by_default);
    table.flag("-r,--raw", "counted by the hardware itself", result.raw);
    table.flag("-e,--derived", "worked out from others", result.derived);
    table.section("What to do with them");
    table.flag("-D,--details", "show them in full", [&result] { set_action(result, action::details); });
    table.output_format(result.how);
    table.flag("-C,--config", "write a trace config that records them, for 'perfetto --txt -c'",
               [&result] { set_action(result, action::config); });
    add_recording_options(table, result.timing, timing);
    add_operands_option(table, result.operands);
    result.names = table.parse(argument_count, arguments);

    if (result.what == action::list_gpus) {
        if (result.of || !result.names.empty() || result.has_filter()) {
            fail_usage("--gpus lists all GPUs, and goes with no choice of a GPU or of counters");
        }
    } else if (!result.of) {
        fail_usage("--gpu or --device says whose counters are meant, and is missing");
    } else if (result.unit) {
        check_unit(*result.unit, *result.of);
    }
    if ((timing.any() || result.operands) && result.what != action::config) {
        fail_usage("--period, --duration and --with-operands go with --config");
    }
    if (!result.preset.empty() && !result.names.empty()) {
        fail_usage("--preset and names exclude each other");
    }
    if (result.what != action::list && result.what != action::list_gpus && result.how != format::table) {
        fail_usage("--json and --csv print lists, and go neither with --config nor with --details");
    }
    return result;
}

std::vector<counter> chosen_counters(const request& asked) {
    // A config is for just what was named.
    std::vector<counter> result =
        !asked.preset.empty()
            ? preset_counters(*asked.of, asked.preset)
            : counters_named(*asked.of, asked.names,
                             asked.what == action::config ? bare_word::refused : bare_word::searches);
    std::erase_if(result, [&](const counter& each) {
        const bool has_all_words = std::all_of(asked.words.begin(), asked.words.end(), [&](const auto& word) {
            return contains_word(each.name, word) || contains_word(each.description, word);
        });
        const bool kind_fits = asked.raw == asked.derived || asked.derived == each.is_derived();
        return !has_all_words || !kind_fits || (asked.by_default && !each.select_by_default) ||
               (asked.unit && !has_unit(each, *asked.unit)) || (asked.block && each.block != *asked.block);
    });
    if (result.empty()) {
        fail(exit_failure, "no counter fits all of that");
    }
    return result;
}

const char* kind_of(const counter& which) {
    return which.row == nullptr ? "" : which.is_derived() ? "derived" : "raw";
}

std::vector<std::uint32_t> dependencies_of(const counter& which) {
    return which.row != nullptr ? which.row->dependencies : std::vector<std::uint32_t>();
}

void print_list(const std::vector<counter>& list, format how) {
    rows data = rows::array();
    for (const counter& each : list) {
        data.push_back({{"id", each.id},
                        {"name", each.name},
                        {"unit", each.unit()},
                        {"block", each.block},
                        {"default", each.select_by_default},
                        {"kind", kind_of(each)},
                        {"expression", each.expression},
                        {"dependencies", dependencies_of(each)},
                        {"description", each.description}});
    }
    print(data, how, {"id", "name", "unit", "default", "block", "expression"});
}

void print_gpus(format how) {
    rows data = rows::array();
    for (const gpu& each : all_gpus()) {
        rows ids = rows::array();
        for (const std::uint32_t id : gpu_ids(*each.product)) {
            ids.push_back(fmt::format("{:#x}", id));
        }
        data.push_back({{"product", static_cast<std::uint32_t>(*each.product)},
                        {"ids", ids},
                        {"table", each.table},
                        {"counters", each.counters.size()}});
    }
    print(data, how, {"product", "ids", "table", "counters"});
}

void print_details(const gpu& of, const counter& which) {
    const auto print_line = [](const char* heading, const std::string& value) {
        if (!value.empty()) {
            print(fmt::format("  {:10}  {}\n", heading, value));
        }
    };
    print(which.name + "\n");
    print_line("id", std::to_string(which.id));
    print_line("unit", which.unit().empty() ? "none" : which.unit());
    print_line("block", which.block);
    print_line("default", which.select_by_default ? "selected" : "not selected");
    print_line(which.is_derived() ? "expression" : "hardware", which.expression);
    const char* heading = "reads";
    for (const std::uint32_t id : dependencies_of(which)) {
        const auto operand = std::find_if(of.counters.begin(), of.counters.end(),
                                          [id](const counter& each) { return each.id == id; });
        print_line(heading, fmt::format("{:5} {}, \"{}\"", id, operand->expression, operand->name));
        heading = "";
    }
    const std::size_t terminal = terminal_width();
    if (!which.description.empty()) {
        print("\n" + wrapped(which.description, terminal == 0 ? page_width : terminal));
    }
}

}  // namespace

// NOLINTNEXTLINE(bugprone-exception-escape): none is thrown but for want of memory, which may well end it
int main(int argument_count, char** arguments) {
    const request asked = read_command_line(argument_count, arguments);
    if (asked.what == action::list_gpus) {
        print_gpus(asked.how);
        finish();
    }
    const std::vector<counter> chosen = chosen_counters(asked);
    if (asked.what == action::config) {
        print(trace_config(*asked.of, asked.operands ? add_operands(*asked.of, chosen, asked.timing) : chosen,
                           asked.timing));
    } else if (asked.what == action::details || (chosen.size() == 1 && asked.how == format::table)) {
        for (const counter& each : chosen) {
            std::fputs(&each == &chosen.front() ? "" : "\n", stdout);
            print_details(*asked.of, each);
        }
    } else {
        print_list(chosen, asked.how);
    }
    finish();
}
