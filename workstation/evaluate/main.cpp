// counterfeed-evaluate: the values of all counters in a recorded sample.

#include <fmt/core.h>

#include <algorithm>
#include <bit>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "hwc/profiler.h"
#include "hwc/reported_value.h"
#include "workstation/command_line/catalogue.h"
#include "workstation/command_line/options.h"
#include "workstation/command_line/output.h"
#include "workstation/command_line/program.h"
#include "workstation/evaluate/sample_file.h"

namespace {

using namespace qel::vexa::command_line;  // NOLINT(google-build-using-namespace)
namespace evaluate = qel::vexa::evaluate;
namespace hardware = qel::vexa::hardware;
namespace hwc = qel::vexa::hwc;

constexpr std::uint32_t default_hw_version = 5;

struct request {
    std::optional<gpu> of;
    std::optional<std::uint64_t> core_mask;
    std::optional<std::uint64_t> l2_slices;
    std::optional<std::uint64_t> bus_width;
    std::uint64_t hw_version = default_hw_version;
    std::optional<std::uint64_t> cycles;
    bool from_json = false;
    bool raw = false;
    format how = format::table;
    std::string sample;
    std::vector<std::string> names;
};

request read_command_line(int argument_count, char** arguments) {
    request result;
    options table(
        {"-g GPU -m MASK -l SLICES -b BYTES [OPTION...] SAMPLE [NAME...]"},
        "Works out the counters of a recorded sample. SAMPLE holds blocks of 64 words of 32 bits: the "
        "job manager's, the tiler's, one for each L2 slice, and one for each core index up to the "
        "highest in the core mask. It is a file of little-endian words, or a JSON file with an array "
        "of words or of blocks; - is standard input. NAME limits the output to counters with this "
        "name or hardware name in any case, this id, or a name that fits a pattern such as "
        "'Fragment*'.",
        "Exit status: 0 success, 1 an unknown counter or a file that can't be read, 2 wrong usage or "
        "a sample that does not fit.");
    const auto number = [&table](const char* names, const char* placeholder, const char* text,
                                 std::uint64_t most, auto& target) {
        table.number(names, placeholder, text, 0, most, [&target](std::uint64_t value) { target = value; });
    };
    table.section("The GPU");
    table.value("-g,--gpu", "GPU", "a product number, or a GPU id such as 0x9002",
                [&result](const std::string& text) { result.of = gpu_argument(text); });
    number("-m,--core-mask", "MASK", "its shader cores, such as 0x3ff: a bit for each core", UINT32_MAX,
           result.core_mask);
    number("-l,--l2-slices", "SLICES", "its number of L2 cache slices", UINT32_MAX, result.l2_slices);
    number("-b,--bus-width", "BYTES", "the width of its external bus in bytes", UINT32_MAX, result.bus_width);
    number("-v,--hw-version", "VERSION",
           "the counter hardware's version (default 5); below 5 the layout of the cores is not known, and "
           "shader core counters are 0",
           UINT32_MAX, result.hw_version);
    table.section("The sample");
    number("-y,--cycles", "CYCLES",
           "the sample's GPU cycle count; without it, counters that need it are left out", UINT64_MAX,
           result.cycles);
    table.flag("-J,--from-json", "SAMPLE is JSON; without this when its name ends in .json",
               result.from_json);
    table.section("Output");
    table.flag(
        "-r,--raw",
        "values as worked out; otherwise as a trace has them, with percentages within 0 and 100 and no "
        "derived counter below 0",
        result.raw);
    table.output_format(result.how);
    result.names = table.parse(argument_count, arguments);
    if (!result.of || !result.core_mask || !result.l2_slices || !result.bus_width) {
        fail_usage("--gpu, --core-mask, --l2-slices and --bus-width must all be given");
    }
    if (result.names.empty()) {
        fail_usage("the sample is missing");
    }
    result.sample = result.names.front();
    result.names.erase(result.names.begin());
    result.from_json |= result.sample.ends_with(".json");
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
        fail(exit_usage,
             fmt::format(
                 "{} has {} blocks, but this GPU's samples have {}: job manager, tiler, {} L2 slices, "
                 "and core indices 0 up to the core mask's highest, {} in all",
                 evaluate::shown_name(asked.sample), found, expected, *asked.l2_slices, core_positions));
    }
}

hwc::profiler make_profiler(const request& asked) {
    const auto mask = static_cast<std::uint32_t>(*asked.core_mask);
    std::error_code ec;
    const hwc::product product(
        hardware::gpu_info{.product = *asked.of->product,
                           .shader_core_count = static_cast<std::uint32_t>(std::popcount(mask)),
                           .shader_core_mask = mask,
                           .l2_slice_count = static_cast<std::uint32_t>(*asked.l2_slices),
                           .bus_width_bytes = static_cast<std::uint32_t>(*asked.bus_width)},
        ec);  // can't fail: the product is known
    hwc::profiler result(product, static_cast<std::uint32_t>(asked.hw_version));
    result.gpu_cycles = asked.cycles.value_or(0);
    return result;
}

// Without the cycle count, what needs it would come out as if the GPU had done nothing but work.
void leave_out_what_needs_cycles(std::vector<counter>& chosen) {
    std::vector<std::string> left_out;
    std::erase_if(chosen, [&left_out](const counter& each) {
        const std::vector<std::uint32_t>& reads = each.row->dependencies;
        const bool needs_cycles = each.id == hwc::gpu_cycles_id ||
                                  std::find(reads.begin(), reads.end(), hwc::gpu_cycles_id) != reads.end();
        if (needs_cycles) {
            left_out.push_back(each.name);
        }
        return needs_cycles;
    });
    if (!left_out.empty()) {
        complain("without --cycles these are left out: " + joined(left_out, ", "));
    }
}

}  // namespace

// NOLINTNEXTLINE(bugprone-exception-escape): none is thrown but for want of memory, which may well end it
int main(int argument_count, char** arguments) {
    const request asked = read_command_line(argument_count, arguments);
    std::vector<counter> chosen = counters_named(*asked.of, asked.names);
    const std::vector<std::uint32_t> sample = evaluate::read_sample(
        asked.sample, asked.from_json ? evaluate::encoding::json : evaluate::encoding::binary);
    check_size(asked, sample.size());
    if (!asked.cycles) {
        leave_out_what_needs_cycles(chosen);
    }

    const hwc::profiler profiler = make_profiler(asked);
    rows data = rows::array();
    for (const counter& each : chosen) {
        const double value = asked.raw ? profiler.get_value_for_counter(sample.data(), *each.row).value()
                                       : hwc::reported_value(profiler, sample.data(), *each.row);
        data.push_back({{"id", each.id}, {"name", each.name}, {"value", value}, {"unit", each.unit()}});
    }
    print(data, asked.how, {"id", "name", "value", "unit"});
    finish();
}
