// counterfeed-evaluate, run as a process.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <fstream>
#include <nlohmann/json.hpp>
#include <random>

#include "hwc/measure_unit.h"
#include "hwc/profiler.h"
#include "tests/support/process.h"
#include "tests/support/tool.h"

namespace {

using namespace qel::vexa;  // NOLINT(google-build-using-namespace)
using nlohmann::json;
using test_support::run_tool;
using test_support::words_of;
using words = std::vector<std::uint32_t>;
using arguments = std::vector<std::string>;

class Evaluate : public testing::Test {
protected:
    std::string write(const std::string& name, const std::string& bytes) const {
        std::ofstream(folder.file(name), std::ios::binary) << bytes;
        return folder.file(name);
    }
    static std::string little_endian(const words& sample) {
        std::string bytes;
        for (const std::uint32_t word : sample) {
            for (int shift = 0; shift < 32; shift += 8) {
                bytes += static_cast<char>(word >> shift & 0xff);
            }
        }
        return bytes;
    }
    const test_support::temporary_folder folder;
};

std::uint64_t bits(double value) {
    return std::bit_cast<std::uint64_t>(value);
}

TEST_F(Evaluate, ValuesAreTheProfilers) {
    std::mt19937_64 random(4);
    bool below_zero = false;
    for (std::uint32_t number = 0; number < hardware::product_count; ++number) {
        const std::uint32_t masks[] = {1, 0b1011, 0x80000001, 0};
        const std::uint32_t mask = masks[number % 4];
        const std::uint32_t slices = number % 5;
        const std::uint32_t version = number == 6 ? 4 : 7;
        std::error_code ec;
        const hwc::product gpu(
            hardware::gpu_info{.product = hardware::product{number},
                               .shader_core_count = static_cast<std::uint32_t>(std::popcount(mask)),
                               .shader_core_mask = mask,
                               .l2_slice_count = slices,
                               .bus_width_bytes = 8U << number % 3},
            ec);
        hwc::profiler profiler(gpu, version);
        profiler.gpu_cycles = random() >> number;
        words sample(std::size_t{64} * (2 + slices + static_cast<unsigned>(std::bit_width(mask))));
        json blocks;
        for (std::size_t i = 0; i < sample.size(); ++i) {
            sample[i] = static_cast<std::uint32_t>(random() >> random() % 64);
            blocks[i / 64].push_back(sample[i]);
        }
        const auto text = [](std::uint64_t each) { return std::to_string(each); };
        const arguments options = words_of("-g|" + text(number) + "|--core-mask|" + text(mask) + "|-l|" +
                                           text(slices) + "|-b|" + text(gpu.bus_width_bytes) + "|--cycles|" +
                                           text(profiler.gpu_cycles) + "|--hw-version|" + text(version));
        const auto run = [&options](arguments more, const std::string& input = "/dev/null") {
            more.insert(more.begin(), options.begin(), options.end());
            return run_tool(EVALUATE, more, input).out;
        };
        const std::string binary = write("sample", little_endian(sample));
        const std::string csv = run({binary, "--csv"});
        EXPECT_EQ(run({write("words.json", json(sample).dump()), "--csv"}), csv);
        EXPECT_EQ(run({"--from-json", "-", "-c"}, write("blocks", blocks.dump())), csv);
        EXPECT_EQ(run({"-", "-c"}, binary), csv);

        const auto lines = test_support::read_csv(csv);
        const auto raw_lines = test_support::read_csv(run({binary, "-c", "--raw"}));
        const json rows = json::parse(run({binary, "-j"}));
        ASSERT_EQ(lines.size(), gpu.counters->size() + 1);
        ASSERT_EQ(raw_lines.size(), lines.size());
        ASSERT_EQ(rows.size(), lines.size() - 1);
        EXPECT_EQ(lines[0], (arguments{"id", "name", "value", "unit"}));
        for (std::size_t i = 1; i < lines.size(); ++i) {
            const auto* row = gpu.counters->find(static_cast<std::uint32_t>(std::stoul(lines[i][0])));
            ASSERT_NE(row, nullptr);
            EXPECT_EQ(lines[i][1], row->name);
            const double value = profiler.get_value_for_counter(sample.data(), *row).value();
            EXPECT_EQ(bits(std::stod(raw_lines[i][2])), bits(value)) << row->name;
            const bool percent = row->numerator_units == hwc::unit_percent;
            const double reported =
                std::fmax(std::fmin(value, percent ? 100 : HUGE_VAL), row->evaluator != nullptr ? 0 : value);
            EXPECT_EQ(bits(std::stod(lines[i][2])), bits(reported)) << row->name;
            EXPECT_EQ(bits(rows[i - 1]["value"].get<double>()), bits(reported)) << row->name;
            below_zero |= value < 0;
        }
    }
    EXPECT_TRUE(below_zero);
}

TEST_F(Evaluate, NamedCountersAsATable) {
    words sample(std::size_t{64} * 4);
    sample[6] = 3;
    const std::string file = write("sample", little_endian(sample));
    const auto result = run_tool(EVALUATE, {"-g", "0x9002", "-m", "1", "-l", "1", "-b", "16", "-y", "9", file,
                                            "GPU_ACTIVE", "GPU util*"});
    EXPECT_EQ(result.out,
              "   id  name                            value  unit\n"
              "    6  GPU active cycles                   3\n"
              "65536  GPU utilization    33.333333333333329  percent\n");
    EXPECT_EQ(result.status, 0);
    const auto without_cycles = run_tool(
        EVALUATE, {"-g", "0x9002", "-m", "1", "-l", "1", "-b", "16", file, "GPU_ACTIVE", "GPU util*"});
    EXPECT_EQ(without_cycles.out, "id  name               value  unit\n 6  GPU active cycles      3\n");
    EXPECT_EQ(without_cycles.err,
              "counterfeed-evaluate: without --cycles these are left out: GPU utilization\n");
}

TEST_F(Evaluate, Complaints) {
    const std::string block = json(words(64)).dump();
    const std::string fitting(256 * 6, 'x');
    const struct {
        std::string name, content;
        const char* more;
        int status;
        const char* message;
    } cases[] = {
        {"s", std::string(256 * 3, 'x'), "", 2, " has 3 blocks, but this GPU's samples have 6: "},
        {"s", fitting + std::string(256, 'x'), "", 2, " has 7 blocks, but"},
        {"s", std::string(1535, 'x'), "", 2, " has 1535 bytes, which is no whole number of blocks of 256"},
        {"s", "", "", 2, " has 0 blocks"},
        {"s", std::string(17 << 20, 'x'), "", 2, "has more than 16777216 bytes"},
        {"s.json", "[1,2", "", 2, "is no JSON from byte 5 on"},
        {"s.json", std::string(100000, '['), "", 2, "is no JSON"},
        {"s.json", "{}", "", 2, "holds no array of words or blocks, but something of the type object"},
        {"s.json", "[]", "", 2, " has 0 blocks"},
        {"s.json", "[1,2,3]", "", 2, " has 3 words, which is no whole number of blocks of 64"},
        {"s.json", "[" + block + ",[1]]", "", 2, "block 1 is no array of 64 words, but one of 1"},
        {"s.json", "[" + block + ",7]", "", 2,
         "block 1 is no array of 64 words, but something of the type number"},
        {"s.json", "[0,4294967296]", "", 2, "word 1 is 4294967296, not a whole number from 0 to 4294967295"},
        {"s.json", "[0,-1]", "", 2, "word 1 is -1,"},
        {"s.json", "[0,0.5]", "", 2, "word 1 is 0.5,"},
        {"s.json", "[0,\"\\ud83d\\ude00\"]", "", 2, "word 1 is \"\\ud83d\\ude00\","},
        {"s", fitting, "-m|0b12", 2, "--core-mask is a whole number from 0 to 4294967295, not \"0b12\""},
        {"s", fitting, "-m|0x100000000", 2, "--core-mask"},
        {"s", fitting, "-l|4294967295", 2, "samples have 4294967300: "},
        {"s", fitting, "-y|18446744073709551616", 2,
         "--cycles is a whole number from 0 to 18446744073709551615"},
        {"s", fitting, "--bus-width=", 2, "--bus-width"},
        {"s", fitting, "-v|five", 2, "--hw-version"},
        {"s", fitting, "-g|99", 2, "unknown GPU"},
        {"s", fitting, "LINE", 1, "\"LINE\"; the nearest are:\n  LINES\n"},
    };
    const arguments gpu{"-g", "9", "-m", "0b101", "-l", "1", "-b", "16"};
    const auto run_with = [&gpu](arguments more) {
        more.insert(more.begin(), gpu.begin(), gpu.end());
        return run_tool(EVALUATE, more);
    };
    for (const auto& c : cases) {
        const auto result = run_with(words_of(write(c.name, c.content) + "|" + c.more));
        EXPECT_EQ(result.status, c.status) << c.message;
        EXPECT_THAT(result.err, testing::HasSubstr(c.message));
        EXPECT_EQ(result.out, "") << c.message;
    }
    EXPECT_EQ(run_with({write("s", fitting)}).status, 0);
    EXPECT_THAT(run_with({"-"}).err, testing::HasSubstr(": standard input has 0 blocks"));
    EXPECT_EQ(run_with({}).status, 2);
    EXPECT_EQ(run_with({folder.file("missing")}).status, 1);
    for (const std::ptrdiff_t missing : {0, 2, 4, 6}) {
        arguments incomplete = gpu;
        incomplete.erase(incomplete.begin() + missing, incomplete.begin() + missing + 2);
        incomplete.push_back(folder.file("s"));
        EXPECT_THAT(run_tool(EVALUATE, incomplete).err, testing::HasSubstr(" must all be given"));
    }
}

}  // namespace
