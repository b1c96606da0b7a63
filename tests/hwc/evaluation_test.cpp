// The number type and the evaluation of raw counters.

#include <gtest/gtest.h>

#include <bit>
#include <limits>

#include "hwc/profiler.h"
#include "hwc/saturating_double.h"
#include "tests/hwc/hand_made_gpu.h"

namespace {

using namespace qel::vexa;  // NOLINT(google-build-using-namespace)
using hwc::saturating_double;

constexpr double largest = 0x1.fffffffffffffp+1023;
constexpr double smallest = 0x1p-1022;
constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr double nan = std::numeric_limits<double>::quiet_NaN();

std::uint64_t bits(double value) {
    return std::bit_cast<std::uint64_t>(value);
}
saturating_double number(double value) {
    return saturating_double::from(value);
}

TEST(SaturatingDouble, ExceptionalValues) {
    const struct {
        double raw, saturated;
    } cases[] = {
        {0.0, 0.0},         {-0.0, 0.0},          {nan, 0.0},
        {-nan, 0.0},        {infinity, largest},  {-infinity, largest},
        {largest, largest}, {-largest, -largest}, {-1e-310, smallest},
        {1e-310, smallest}, {smallest, smallest}, {-smallest, -smallest},
        {-5.0, -5.0},       {0.1, 0.1},           {std::numeric_limits<double>::denorm_min(), smallest}};
    for (const auto& c : cases) {
        EXPECT_EQ(bits(number(c.raw).value()), bits(c.saturated)) << c.raw;
    }
}

TEST(SaturatingDouble, Operators) {
    const saturating_double zero;
    const saturating_double big = number(1e308);
    const saturating_double max_value = number(largest);
    const struct {
        saturating_double result;
        double expected;
    } cases[] = {
        {big + big, largest},
        {max_value / max_value, 1.0},
        {(zero - big) - big, largest},  // towards negative infinity, and positive out of it
        {(zero - big) * big, largest},
        {number(smallest) / number(4), smallest},
        {(zero - number(smallest)) / number(4), smallest},
        {zero * (zero - big), 0.0},
        {number(1) / zero, 0.0},
        {zero / zero, 0.0},
        {(zero - number(1)) / zero, 0.0},
        {max(zero - number(7), zero), 0.0},
        {saturating_double(std::uint64_t{9007199254740993}), 9007199254740992.0},
        {saturating_double(std::numeric_limits<std::uint64_t>::max()), 0x1p64},
        {saturating_double(std::uint32_t{0xffffffff}), 4294967295.0},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(bits(c.result.value()), bits(c.expected)) << "case " << &c - cases;
    }
}

double value_of(const hwc::profiler& profiler, const std::vector<std::uint32_t>& sample, std::uint32_t id) {
    hwc::vexa_counter_descriptor row{};
    row.id = id;
    return profiler.get_value_for_counter(sample.data(), row).value();
}

const hwc::counter_table no_counters;

TEST(Profiler, OtherIds) {
    hwc::profiler profiler(hand_made_gpu(no_counters, 0b101, 1), 5);
    std::vector<std::uint32_t> sample(std::size_t{64} * 6, 1);
    EXPECT_EQ(value_of(profiler, sample, 65535), 0.0);
    profiler.gpu_cycles = 9007199254740993;
    EXPECT_EQ(value_of(profiler, sample, 65535), 9007199254740992.0);
    for (const std::uint32_t id :
         {256U, 300U, 65534U, 65536U, 0xffffffffU}) {  // the last two are rows without evaluator
        EXPECT_EQ(value_of(profiler, sample, id), 0.0) << id;
    }
    EXPECT_EQ(value_of(profiler, sample, 192), 1.0) << "a word that no counter has is averaged too";
    // Without slices there is nothing to read.
    EXPECT_EQ(value_of(hwc::profiler(hand_made_gpu(no_counters, 0, 0), 5), {}, 128), 0.0);
    // Counter hardware whose layout of cores isn't known gives no shader core values.
    const hwc::profiler old(hand_made_gpu(no_counters, 0b101, 1), 4);
    EXPECT_EQ(value_of(old, sample, 192 + 5), 0.0);
    EXPECT_EQ(old.shader_core_count, 2U);
}

TEST(Profiler, EndsTheProcessOnACountOfCoresThatNoMaskHas) {
    hwc::product gpu = hand_made_gpu(no_counters, 0b101, 1);
    gpu.shader_core_count = 0x40000000;
    EXPECT_DEATH(hwc::profiler(gpu, 5), "");
    EXPECT_TRUE(hwc::profiler(gpu, 4).core_indices.empty());
}

TEST(Product, HasNothingWithoutADeviceAndNoTableWhenUnknown) {
    std::error_code ec;
    const hwc::product unknown({.product = hardware::product{14}, .l2_slice_count = 2}, ec);
    EXPECT_EQ(ec, std::error_code(EINVAL, std::generic_category()));
    EXPECT_EQ(unknown.counters, nullptr);
    EXPECT_EQ(unknown.l2_slice_count, 2U);
    ec.clear();
    const hwc::product gpu("/nonexistent", ec);
    EXPECT_EQ(ec, std::error_code(ENODEV, std::generic_category()));
    EXPECT_EQ(gpu.counters, nullptr);
    EXPECT_EQ(gpu.shader_core_count | gpu.l2_slice_count | gpu.bus_width_bytes, 0U);
}

}  // namespace
