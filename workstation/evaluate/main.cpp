// counterfeed-evaluate: the values of all counters in a recorded sample.

#include <getopt.h>

#include <bit>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "hwc/profiler.h"
#include "hwc/reported_value.h"
#include "workstation/command_line/catalogue.h"
#include "workstation/command_line/output.h"
#include "workstation/command_line/program.h"
#include "workstation/evaluate/sample_file.h"

namespace {

using namespace qel::vexa::command_line;  // NOLINT(google-build-using-namespace)
namespace evaluate = qel::vexa::evaluate;
namespace hardware = qel::vexa::hardware;
namespace hwc = qel::vexa::hwc;

constexpr const char* usage =
    "Usage: counterfeed-evaluate -g GPU -m MASK -l SLICES -b BYTES [OPTION...] SAMPLE [NAME...]\n"
    "\n"
    "Works out the counters of a recorded sample.\n"
    "\n"
    "SAMPLE holds blocks of 64 words of 32 bits: the job manager's, the tiler's, one for each L2 slice, and "
    "one\n"
    "for each core index up to the highest in the core mask. It is a file of little-endian words, or a JSON "
    "file\n"
    "with an array of words or of blocks; - is standard input. NAME limits the output to counters with this "
    "name\n"
    "or hardware name in any case, this id, or a name that fits a pattern such as 'Fragment*'.\n"
    "\n"
    "The GPU:\n"
    "  -g, --gpu GPU              a product number, or a GPU id such as 0x9002\n"
    "  -m, --core-mask MASK       its shader cores, such as 0x3ff: a bit for each core\n"
    "  -l, --l2-slices SLICES     its number of L2 cache slices\n"
    "  -b, --bus-width BYTES      the width of its external bus in bytes\n"
    "  -v, --hw-version VERSION   the counter hardware's version (default 5); below 5 the layout of the "
    "cores is\n"
    "                             not known, and shader core counters are 0\n"
    "\n"
    "The sample:\n"
    "  -y, --cycles CYCLES        the sample's GPU cycle count (default 0, as of a kernel that reports "
    "none)\n"
    "  -J, --from-json            SAMPLE is JSON; without this when its name ends in .json\n"
    "\n"
    "Output:\n"
    "  -r, --raw                  values as worked out; otherwise as a trace has them, with percentages "
    "within 0\n"
    "                             and 100 and no derived counter below 0\n"
    "  -j, --json                 print JSON\n"
    "  -c, --csv                  print CSV\n"
    "  -h, --help                 print this\n"
    "  -V, --version              print the version\n"
    "\n"
    "Exit status: 0 success, 1 an unknown counter or a file that can't be read, 2 wrong usage or a sample "
    "that\n"
    "does not fit.\n";

constexpr std::uint32_t default_hw_version = 5;

struct request {
    std::optional<gpu> of;
    std::optional<std::uint64_t> core_mask;
    std::optional<std::uint64_t> l2_slices;
    std::optional<std::uint64_t> bus_width;
    std::uint64_t hw_version = default_hw_version;
    std::uint64_t cycles = 0;
    bool from_json = false;
    bool raw = false;
    format how = format::table;
    std::string sample;
    std::vector<std::string> names;
};

request read_command_line(int argument_count, char** arguments) {
    static constexpr option options[] = {{"gpu", required_argument, nullptr, 'g'},
                                         {"core-mask", required_argument, nullptr, 'm'},
                                         {"l2-slices", required_argument, nullptr, 'l'},
                                         {"bus-width", required_argument, nullptr, 'b'},
                                         {"hw-version", required_argument, nullptr, 'v'},
                                         {"cycles", required_argument, nullptr, 'y'},
                                         {"from-json", no_argument, nullptr, 'J'},
                                         {"raw", no_argument, nullptr, 'r'},
                                         {"json", no_argument, nullptr, 'j'},
                                         {"csv", no_argument, nullptr, 'c'},
                                         {"help", no_argument, nullptr, 'h'},
                                         {"version", no_argument, nullptr, 'V'},
                                         {nullptr, 0, nullptr, 0}};
    request result;
    for (int option = 0; option != -1;
         option = ::getopt_long(argument_count, arguments, "g:m:l:b:v:y:JrjchV", options, nullptr)) {
        switch (option) {
            case 0:
                break;
            case 'g':
                result.of = gpu_argument(optarg);
                break;
            case 'm':
                result.core_mask = number_argument("--core-mask", optarg, 0, UINT32_MAX);
                break;
            case 'l':
                result.l2_slices = number_argument("--l2-slices", optarg, 0, UINT32_MAX);
                break;
            case 'b':
                result.bus_width = number_argument("--bus-width", optarg, 0, UINT32_MAX);
                break;
            case 'v':
                result.hw_version = number_argument("--hw-version", optarg, 0, UINT32_MAX);
                break;
            case 'y':
                result.cycles = number_argument("--cycles", optarg, 0, UINT64_MAX);
                break;
            case 'J':
                result.from_json = true;
                break;
            case 'r':
                result.raw = true;
                break;
            default:
                take_common_option(option, result.how, usage);
        }
    }
    if (!result.of || !result.core_mask || !result.l2_slices || !result.bus_width) {
        fail_usage("--gpu, --core-mask, --l2-slices and --bus-width must all be given");
    }
    if (optind == argument_count) {
        fail_usage("the sample is missing");
    }
    result.sample = arguments[optind];
    result.from_json |= result.sample.ends_with(".json");
    result.names.assign(arguments + optind + 1, arguments + argument_count);
    return result;
}

// The sample must have just the blocks that the GPU has: with one more or less, a number that was given is
// wrong, and the cores' words would be taken from wrong places.
void check_size(const request& asked, std::size_t word_count) {
    const auto core_positions =
        static_cast<std::uint64_t>(std::bit_width(static_cast<std::uint32_t>(*asked.core_mask)));
    const std::uint64_t expected = 2 + *asked.l2_slices + core_positions;
    const std::size_t found = word_count / hwc::counters_per_block;
    if (found != expected) {
        fail(exit_usage, evaluate::shown_name(asked.sample) + " has " + std::to_string(found) +
                             " blocks, but this GPU's samples have " + std::to_string(expected) +
                             ": job manager, tiler, " + std::to_string(*asked.l2_slices) +
                             " L2 slices, and core indices 0 up to the core "
                             "mask's highest, " +
                             std::to_string(core_positions) + " in all");
    }
}

hwc::profiler make_profiler(const request& asked) {
    const auto mask = static_cast<std::uint32_t>(*asked.core_mask);
    std::error_code ec;
    const hwc::product product(
        hardware::gpu_info{.product = asked.of->product,
                           .shader_core_count = static_cast<std::uint32_t>(std::popcount(mask)),
                           .shader_core_mask = mask,
                           .l2_slice_count = static_cast<std::uint32_t>(*asked.l2_slices),
                           .bus_width_bytes = static_cast<std::uint32_t>(*asked.bus_width)},
        ec);  // can't fail: the product is known
    hwc::profiler result(product, static_cast<std::uint32_t>(asked.hw_version));
    result.gpu_cycles = asked.cycles;
    return result;
}

}  // namespace

// NOLINTNEXTLINE(bugprone-exception-escape): none is thrown but for want of memory, which may well end it
int main(int argument_count, char** arguments) {
    const request asked = read_command_line(argument_count, arguments);
    const std::vector<counter> chosen = counters_named(*asked.of, asked.names);
    const std::vector<std::uint32_t> sample = evaluate::read_sample(
        asked.sample, asked.from_json ? evaluate::encoding::json : evaluate::encoding::binary);
    check_size(asked, sample.size());

    const hwc::profiler profiler = make_profiler(asked);
    rows data = rows::array();
    for (const counter& each : chosen) {
        const double value = asked.raw ? profiler.get_value_for_counter(sample.data(), *each.row).value()
                                       : hwc::reported_value(profiler, sample.data(), *each.row);
        data.push_back(
            {{"id", each.row->id}, {"name", each.row->name}, {"value", value}, {"unit", each.unit}});
    }
    print(data, asked.how, {"id", "name", "value", "unit"});
    finish();
}
