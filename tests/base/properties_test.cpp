// The driver's property bytes as they arrive in the record.
#include "tests/support/properties.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "base/vexa_base_context.h"
#include "tests/support/answers.h"
#include "tests/support/failing_calls.h"
#include "virtual_gpu/machine.h"

namespace {

using namespace qel::vexa::virtual_gpu;  // NOLINT(google-build-using-namespace)

using test_support::bytes;
using test_support::change_answer;
using test_support::property;
using test_support::operator+;

// The record that a blob becomes.
base_gpu_props read(const bytes& blob) {
    machine::reset();
    machine::add_node(0, {.raw_properties = blob});
    uku_context ctx{};
    base_version_record version{.major = 11, .minor = 33};
    EXPECT_EQ(uku_open(0, 0, &version, &ctx), UKU_OPEN_SUCCESS);
    base_flags_record flags{.create_flags = 2};
    for (const auto& [error, result] : {std::pair(ENOMEM, 2U), {EBUSY, 68U}, {EIO, 3U}, {0, 0U}}) {
        machine::fail(request_kind::set_flags, error);
        EXPECT_EQ(basep_ioctl_set_flags(&ctx, &flags), result);
    }
    base_gpu_props props;
    std::memset(&props, 0xa5, sizeof props);
    EXPECT_EQ(basep_ioctl_get_properties(&ctx, &props), BASE_SUCCESS);
    test_support::calls.failing_malloc = 1;
    EXPECT_EQ(basep_ioctl_get_properties(&ctx, &props), BASE_FAILURE);  // and nothing changed
    base_hwcnt_reader_setup_record setup{};
    std::int32_t reader = -1;
    machine::fail(request_kind::reader_setup, EIO);
    change_answer = [](auto...) { return 0; };
    EXPECT_EQ(basep_ioctl_hwcnt_reader_setup(&ctx, &setup, &reader), BASE_SUCCESS);
    change_answer = nullptr;
    EXPECT_EQ(reader, 0) << "a descriptor like any other";
    uku_close(&ctx);
    return props;
}

bool is_zero(const base_gpu_props& props) {
    return std::memcmp(&props, std::vector<char>(sizeof props).data(), sizeof props) == 0;
}

TEST(property_record, holds_a_whole_gpu) {
    const base_gpu_props props =
        read(property_blob({.version_status = 0xfff1,
                            .major_revision = 2,
                            .minor_revision = 3,
                            .core_group_masks = {0b1011, 0x8000'0000'0000'0000, 0, 0xffff'ffff'ffff'ffff},
                            .core_group_count = 2,
                            .l2_slices = 255,
                            .bus_width_bytes = 32,
                            .clock_hz = 1'000'000'000}));
    EXPECT_EQ(props.version_status, 0xfff1);
    EXPECT_EQ(props.major_revision, 2);
    EXPECT_EQ(props.minor_revision, 3);
    EXPECT_EQ(props.gpu_freq_khz_max, 1'000'000U);
    EXPECT_EQ(props.num_l2_slices, 255);
    EXPECT_EQ(props.raw_l2_features >> 24, 8U);
    EXPECT_EQ(props.num_core_groups, 2U);
    EXPECT_EQ(props.core_group_mask_1, 0x8000'0000'0000'0000);
    EXPECT_EQ(props.core_group_num_cores_0, 3);
    EXPECT_EQ(props.core_group_num_cores_3, 64) << "groups that don't count are counted";
}

// Under the address sanitizer this also shows that nothing beyond the bytes is read.
TEST(property_record, odd_bytes) {
    EXPECT_TRUE(is_zero(read({})));
    bytes unknown;
    for (const std::uint32_t key : {0U, 5U, 7U, 86U, 0x3fff'ffffU}) {
        for (unsigned size_code = 0; size_code < 4; ++size_code) {
            unknown = unknown + property(key, size_code, ~std::uint64_t{0});
        }
    }
    EXPECT_TRUE(is_zero(read(unknown)));
    // A value takes the size of its field, and the later one counts.
    const bytes wide = property(15, 3, 0x1122'3344'5566'7788) + property(2, 2, 0xffff'1234) + unknown +
                       property(1, 3, 0x9999'9999'8765'4321) + property(25, 0, 0xfe);
    const base_gpu_props props = read(wide);
    EXPECT_EQ(props.num_l2_slices, 0x88);
    EXPECT_EQ(props.version_status, 0x1234);
    EXPECT_EQ(props.product_id, 0x8765'4321U);
    EXPECT_EQ(props.raw_shader_present, 0xfeU);
    EXPECT_EQ(read(wide + property(1, 0, 5)).product_id, 5U);
    for (unsigned size_code = 0; size_code < 4; ++size_code) {
        for (std::size_t cut = 1; cut < 4 + (1U << size_code); ++cut) {
            EXPECT_EQ(read(property(3, 2, 8) + property(3, size_code, 9, cut)).minor_revision, 8);
        }
    }
}

// The driver says how much it has when it is asked for the bytes, and before that when it is asked for their
// length.
TEST(property_record, lengths_that_change) {
    const bytes two = property(1, 2, 7) + property(3, 1, 8);
    const int size = static_cast<int>(two.size());
    for (const int later : {0, 5, 8, size - 1, size, size + 1, 1 << 30}) {
        int count = 0;
        change_answer = [&](unsigned long number, void*, int result) {
            return number == 0x4010'8003 && ++count == 2 ? later : result;
        };
        const base_gpu_props props = read(two);
        change_answer = nullptr;
        EXPECT_EQ(props.product_id, later >= 8 ? 7U : 0U) << later;
        EXPECT_EQ(props.minor_revision, later >= size ? 8 : 0) << later;
    }
}

}  // namespace
