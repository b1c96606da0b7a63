// counterfeed-counters: which counters a GPU has, what they mean, and trace configs that record them.

#include <getopt.h>
#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "workstation/command_line/catalogue.h"
#include "workstation/command_line/output.h"
#include "workstation/command_line/program.h"
#include "workstation/counters/trace_config.h"

namespace {

using namespace qel::vexa::command_line;  // NOLINT(google-build-using-namespace)
namespace counters = qel::vexa::counters;

constexpr const char* usage =
    "Usage: counterfeed-counters --gpu GPU [OPTION...] [NAME...]\n"
    "       counterfeed-counters --gpus [--json|--csv]\n"
    "\n"
    "Lists the counters of a GPU. A single counter is shown in full.\n"
    "\n"
    "GPU is a product number or a GPU id such as 0x9002; --gpus lists them. NAME is a counter's name in any "
    "case,\n"
    "its hardware name, its id, or a pattern such as 'Fragment*'; without any, all counters are meant.\n"
    "\n"
    "Which counters:\n"
    "  -g, --gpu GPU          the GPU that they belong to\n"
    "  -s, --search WORDS     with all of these words in name or description; may be repeated\n"
    "  -u, --unit UNIT        in this unit: byte, pixel, percent, primitive, fragment, instruction, none\n"
    "  -b, --block BLOCK      of this hardware block: job-manager, tiler, memory-system, shader-core, gpu; "
    "a derived\n"
    "                         counter belongs to the block of the first counter in its expression\n"
    "  -d, --default          selected by default\n"
    "  -r, --raw              counted by the hardware itself\n"
    "  -e, --derived          worked out from others\n"
    "\n"
    "What to do with them:\n"
    "  -D, --details          show them in full\n"
    "  -j, --json             print them as JSON\n"
    "  -c, --csv              print them as CSV\n"
    "  -C, --config           write a trace config that records them, for 'perfetto --txt -c'\n"
    "  -p, --period MS        with --config: milliseconds between samples, 1 to 1000 (default 10)\n"
    "  -t, --duration S       with --config: seconds to record, up to 604800, a week (default 10); 0 "
    "records\n"
    "                         until stopped\n"
    "\n"
    "  -G, --gpus             list the GPUs\n"
    "  -h, --help             print this\n"
    "  -V, --version          print the version\n"
    "\n"
    "Exit status: 0 success, 1 a name or filter that fits no counter, 2 wrong usage.\n";

constexpr std::uint64_t max_duration_s = 604800;
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
    counters::recording recording;

    bool has_filter() const { return !words.empty() || unit || block || by_default || raw || derived; }
};

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

bool has_unit(const counter& which, const std::string& unit) {
    const auto is = [&](std::uint32_t number) { return same_word(unit, unit_text(number, 0)); };
    return same_word(unit, which.unit) ||
           (which.unit.empty() ? same_word(unit, "none")
                               : is(which.row->numerator_units) || is(which.row->denominator_units));
}

// Checks against the units that any GPU has, so that a slip is told from a unit that this GPU lacks.
std::string unit_argument(const std::string& text) {
    for (const gpu& each : all_gpus()) {
        for (const counter& which : each.counters) {
            if (has_unit(which, text)) {
                return text;
            }
        }
    }
    fail_usage("unknown unit \"" + text +
               "\": there are byte, pixel, percent, primitive, fragment, instruction and none");
}

void add_words(std::vector<std::string>& words, const std::string& text) {
    std::istringstream stream(text);
    words.insert(words.end(), std::istream_iterator<std::string>(stream), {});
}

bool contains_word(const char* text, const std::string& word) {
    return ::strcasestr(text, word.c_str()) != nullptr;
}

request read_command_line(int argument_count, char** arguments) {
    static constexpr option options[] = {{"gpu", required_argument, nullptr, 'g'},
                                         {"search", required_argument, nullptr, 's'},
                                         {"unit", required_argument, nullptr, 'u'},
                                         {"block", required_argument, nullptr, 'b'},
                                         {"default", no_argument, nullptr, 'd'},
                                         {"raw", no_argument, nullptr, 'r'},
                                         {"derived", no_argument, nullptr, 'e'},
                                         {"details", no_argument, nullptr, 'D'},
                                         {"json", no_argument, nullptr, 'j'},
                                         {"csv", no_argument, nullptr, 'c'},
                                         {"config", no_argument, nullptr, 'C'},
                                         {"period", required_argument, nullptr, 'p'},
                                         {"duration", required_argument, nullptr, 't'},
                                         {"gpus", no_argument, nullptr, 'G'},
                                         {"help", no_argument, nullptr, 'h'},
                                         {"version", no_argument, nullptr, 'V'},
                                         {nullptr, 0, nullptr, 0}};
    request result;
    bool timing = false;
    for (int option = 0; option != -1;
         option = ::getopt_long(argument_count, arguments, "g:s:u:b:dreDjcCp:t:GhV", options, nullptr)) {
        switch (option) {
            case 0:
                break;
            case 'g':
                result.of = gpu_argument(optarg);
                break;
            case 's':
                add_words(result.words, optarg);
                break;
            case 'u':
                result.unit = unit_argument(optarg);
                break;
            case 'b':
                result.block = block_argument(optarg);
                break;
            case 'd':
                result.by_default = true;
                break;
            case 'r':
                result.raw = true;
                break;
            case 'e':
                result.derived = true;
                break;
            case 'D':
                set_action(result, action::details);
                break;
            case 'C':
                set_action(result, action::config);
                break;
            case 'p':
                timing = true;
                result.recording.period_ms =
                    number_argument("--period", optarg, counters::min_period_ms, counters::max_period_ms);
                break;
            case 't':
                timing = true;
                result.recording.duration_s = number_argument("--duration", optarg, 0, max_duration_s);
                break;
            case 'G':
                set_action(result, action::list_gpus);
                break;
            default:
                take_common_option(option, result.how, usage);
        }
    }
    result.names.assign(arguments + optind, arguments + argument_count);
    if (result.what == action::list_gpus) {
        if (result.of || !result.names.empty() || result.has_filter()) {
            fail_usage("--gpus lists all GPUs, and goes with no choice of a GPU or of counters");
        }
    } else if (!result.of) {
        fail_usage("--gpu says whose counters are meant, and is missing");
    }
    if (timing && result.what != action::config) {
        fail_usage("--period and --duration go with --config");
    }
    if (result.what != action::list && result.what != action::list_gpus && result.how != format::table) {
        fail_usage("--json and --csv print lists, and go neither with --config nor with --details");
    }
    return result;
}

std::vector<counter> chosen_counters(const request& asked) {
    std::vector<counter> result = counters_named(*asked.of, asked.names);
    std::erase_if(result, [&](const counter& each) {
        const bool has_all_words = std::all_of(asked.words.begin(), asked.words.end(), [&](const auto& word) {
            return contains_word(each.row->name, word) || contains_word(each.row->description, word);
        });
        const bool kind_fits = asked.raw == asked.derived || asked.derived == each.is_derived();
        return !has_all_words || !kind_fits || (asked.by_default && !each.row->select_by_default) ||
               (asked.unit && !has_unit(each, *asked.unit)) || (asked.block && each.block != *asked.block);
    });
    if (result.empty()) {
        fail(exit_failure, "no counter fits all of that");
    }
    return result;
}

void print_list(const std::vector<counter>& list, format how) {
    rows data = rows::array();
    for (const counter& each : list) {
        data.push_back({{"id", each.row->id},
                        {"name", each.row->name},
                        {"unit", each.unit},
                        {"block", each.block},
                        {"default", each.row->select_by_default},
                        {"kind", each.is_derived() ? "derived" : "raw"},
                        {"expression", each.expression},
                        {"dependencies", each.row->dependencies},
                        {"description", each.row->description}});
    }
    print(data, how, {"id", "name", "unit", "default", "block", "expression"});
}

void print_gpus(format how) {
    rows data = rows::array();
    for (const gpu& each : all_gpus()) {
        rows ids = rows::array();
        for (const std::uint32_t id : gpu_ids(each.product)) {
            ids.push_back(hexadecimal(id));
        }
        data.push_back({{"product", static_cast<std::uint32_t>(each.product)},
                        {"ids", ids},
                        {"table", each.table},
                        {"counters", each.counters.size()}});
    }
    print(data, how, {"product", "ids", "table", "counters"});
}

void print_details(const gpu& of, const counter& which) {
    std::printf("%s\n", which.row->name);
    std::printf("  id          %u\n", which.row->id);
    std::printf("  unit        %s\n", which.unit.empty() ? "none" : which.unit.c_str());
    std::printf("  block       %s\n", which.block.c_str());
    std::printf("  default     %s\n", which.row->select_by_default ? "selected" : "not selected");
    std::printf("  %s  %s\n", which.is_derived() ? "expression" : "hardware  ", which.expression.c_str());
    const char* heading = "reads     ";
    for (const std::uint32_t id : which.row->dependencies) {
        const auto operand = std::find_if(of.counters.begin(), of.counters.end(),
                                          [id](const counter& each) { return each.row->id == id; });
        std::printf("  %s  %5u %s, \"%s\"\n", heading, id, operand->expression.c_str(), operand->row->name);
        heading = "          ";
    }
    const std::size_t terminal = terminal_width();
    std::printf("\n%s", wrapped(which.row->description, terminal == 0 ? page_width : terminal).c_str());
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
        std::fputs(counters::trace_config(*asked.of, chosen, asked.recording).c_str(), stdout);
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
