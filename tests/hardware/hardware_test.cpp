// Early product detection: the property bytes of a device node, and what they say of the GPU.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <tuple>

#include "hardware/info.h"
#include "tests/support/answers.h"
#include "tests/support/process.h"
#include "tests/support/properties.h"
#include "tests/support/resources.h"
#include "virtual_gpu/machine.h"

namespace {

using namespace qel::vexa;     // NOLINT(google-build-using-namespace)
using namespace test_support;  // NOLINT(google-build-using-namespace)
using virtual_gpu::request_kind;
namespace machine = virtual_gpu::machine;

const bytes product_9 = property(1, 2, 0x9002);
const bytes one_group = property(62, 2, 1) + property(64, 3, 0xf);
const bytes sound = product_9 + one_group;

// None, or the driver's own, which are negative, or the system's.
std::error_code code(int error) {
    return {error, error <= 0 ? std::system_category() : std::generic_category()};
}

struct outcome {
    std::error_code error;
    hardware::gpu_info gpu;
};

// Decodes from a block of exactly the blob's size, so that a sanitizer sees any byte read beyond it.
outcome decode(const bytes& blob, std::error_code ec = {}) {
    const std::unique_ptr<std::byte[]> exact(new std::byte[blob.size()]);
    std::copy(blob.begin(), blob.end(), exact.get());
    const hardware::gpu_info gpu = hardware::info({exact.get(), blob.size()}, ec);
    static_assert(sizeof gpu == 28);
    const char zeros[sizeof gpu] = {};
    EXPECT_EQ(std::memcmp(&gpu, zeros, sizeof gpu) == 0, static_cast<bool>(ec));
    return {ec, gpu};
}

TEST(Info, DamagedBlobsAndTheirErrors) {
    const struct {
        const char* what;
        bytes blob;
        int expected, before = 0;
    } cases[] = {
        {"empty", {}, EPROTO},
        {"half a header", bytes(3), EPROTO},
        {"a long value cut off", sound + property(25, 3, ~0ULL, 2), EPROTO},
        {"header alone at the end", sound + bytes(4), EPROTO},
        {"no product", one_group, EPROTO},
        {"no number of groups", product_9 + property(64, 3, 0xf), EPROTO},
        {"upper half of a mask only", product_9 + property(62, 2, 1) + property(64, 3, 1ULL << 32), EPROTO},
        {"cores beyond the groups alone", product_9 + property(62, 2, 1) + property(65, 3, 0xf), EPROTO},
        {"masked id of zero", property(1, 2, 0x0ff0) + one_group, EINVAL},
        {"unknown id, then damage", property(1, 2, 0x7004) + bytes(1), EOPNOTSUPP},
        {"an error from before", sound, -5, -5},
        {"an error from before, and no product", one_group, -5, -5},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(decode(c.blob, code(c.before)).error, code(c.expected)) << c.what;
    }
}

TEST(Info, NumbersComeFromTheirKeys) {
    // Against the order of the keys, so that none may store what belongs to the next.
    const auto [error, gpu] =
        decode(property(99, 3, ~0ULL) + property(0x3fffffff, 0, 1) + property(29, 2, 0x07123456) +
               property(15, 0, 4) + property(4, 1, 3) + property(3, 1, 2) + sound);
    ASSERT_FALSE(error);
    EXPECT_EQ(std::tuple(static_cast<std::uint32_t>(gpu.product), gpu.minor_revision, gpu.major_revision,
                         gpu.l2_slice_count, gpu.bus_width_bytes),
              std::tuple(9U, 2U, 3U, 4U, 16U));
    // The later of two wins; a value wider than its number counts with its low word.
    EXPECT_EQ(decode(sound + property(15, 0, 4) + property(15, 3, 0xffff'ffff'0000'0002)).gpu.l2_slice_count,
              2U);
    // The cores are those of all groups that count.
    const bytes masks =
        property(64, 3, 0xf) + property(65, 3, 0xabcd'0000'00f0) + property(79, 2, 0x8000'0000);
    const struct {
        std::uint64_t groups;
        std::uint32_t mask, cores;
    } cases[] = {
        {1, 0xf, 4}, {15, 0xff, 8}, {16, 0x8000'00ff, 9}, {17, 0x8000'00ff, 9}, {~0ULL, 0x8000'00ff, 9}};
    for (const auto& [groups, mask, cores] : cases) {
        const hardware::gpu_info cored = decode(product_9 + property(62, 3, groups) + masks).gpu;
        EXPECT_TRUE(cored.shader_core_mask == mask && cored.shader_core_count == cores) << groups;
    }
    EXPECT_EQ(decode(sound).gpu.bus_width_bytes, 0U);
    for (std::uint32_t exponent = 0; exponent < 256; ++exponent) {
        const std::int32_t bits = exponent < 32 ? static_cast<std::int32_t>(1U << exponent) : 0;
        EXPECT_EQ(decode(sound + property(29, 2, exponent << 24 | 0x123456)).gpu.bus_width_bytes,
                  static_cast<std::uint32_t>(bits / 8))
            << exponent;
    }
}

TEST(Info, OnlyFourBitsAtEachEndOfTheIdCount) {
    std::map<std::uint32_t, unsigned> ids_of_product;
    for (std::uint32_t id = 0; id <= 0xffff; ++id) {
        std::error_code ec, masked_ec;
        const auto product = hardware::detail::to_product(0xffff'ffff'ffff'0000ULL | id, ec);
        ASSERT_EQ(product, hardware::detail::to_product(id & 0xf00f, masked_ec));
        ASSERT_EQ(ec, masked_ec);
        if (!ec && (id & 0xff0) == 0) {
            ++ids_of_product[static_cast<std::uint32_t>(product)];
        }
    }
    // Fourteen products, one of which has two ids.
    EXPECT_TRUE(ids_of_product.size() == 14 && ids_of_product.rbegin()->first == 13);
    for (const auto& [product, ids] : ids_of_product) {
        EXPECT_EQ(ids, product == 3 ? 2U : 1U) << product;
    }
}

// What the node at a path gives, on the machine as it is.
hardware::property_bytes read(std::error_code& ec, const std::string& path = "/dev/vexa0") {
    const held_resources before = held_resources::now();
    const hardware::property_bytes result = hardware::props(path, ec);
    EXPECT_EQ(held_resources::now().descriptors, before.descriptors);
    return result;
}

// The first answer stays the length, whatever the second is.
TEST(Props, RequestsAndResult) {
    ::close(STDIN_FILENO);  // the lowest descriptor is one, too
    for (const int later : {-1, 0, 5, 1 << 30}) {
        const bool empty = later == 0;
        virtual_gpu::gpu_description gpu;
        if (empty) {
            gpu.raw_properties.emplace();
            gpu.kernel_version = {1, 0};  // any version will do
        }
        machine::reset();
        machine::add_node(0, gpu);
        int count = 0;
        change_answer = [&](unsigned long number, void*, int result) {
            return later >= 0 && number == 0x4010'8003 && ++count == 2 ? later : result;
        };
        std::error_code ec;
        const bytes blob = read(ec);
        change_answer = nullptr;
        EXPECT_FALSE(ec);
        EXPECT_EQ(blob, empty ? bytes() : virtual_gpu::property_blob(gpu));

        const auto requests = machine::requests();
        const std::uint32_t numbers[] = {0, 0xc0048000, 0x40048001, 0x40108003, 0x40108003};
        ASSERT_EQ(requests.size(), std::size(numbers));
        for (std::size_t i = 0; i < requests.size(); ++i) {
            EXPECT_EQ(requests[i].number, numbers[i]) << i;
        }
        EXPECT_EQ(requests[1].argument, bytes(4));  // asks for no version in particular
        EXPECT_EQ(requests[2].argument, (bytes{std::byte{2}, {}, {}, {}}));  // the creation flags
        EXPECT_EQ(requests[3].argument, bytes(16));                          // the length alone
        EXPECT_EQ(requests[4].argument == bytes(16), empty);                 // also into no buffer
        EXPECT_EQ(requests[4].result, static_cast<int>(blob.size()));
    }
}

TEST(Props, EveryRefusal) {
    using enum request_kind;
    const temporary_folder folder;
    std::ofstream(folder.file("plain")).close();
    const struct {
        request_kind failing;
        unsigned nth;
        int error, expected;
        std::string path = "/dev/vexa0";
    } cases[] = {
        {open, 1, EACCES, ENODEV},
        {version_check, 1, ENOTTY, 0},  // the second number serves
        {version_check_second, 1, EBUSY, -1},
        {set_flags, 1, EPERM, -1},
        {get_properties, 1, EINVAL, -1},
        {get_properties, 2, EIO, -1},
        {unknown, 1, 0, ENODEV, "/dev/vexa1"},
        {unknown, 1, 0, ENODEV, "/"},
        {unknown, 1, 0, -1, folder.file("plain")},
    };
    for (const auto& [failing, nth, error, expected, path] : cases) {
        machine::reset();
        machine::add_node(0, {});
        machine::fail(failing, error, nth);
        if (failing == version_check_second) {
            machine::fail(version_check, EINVAL);
        }
        std::error_code ec;
        EXPECT_EQ(read(ec, path).empty(), expected != 0);
        EXPECT_EQ(ec, code(expected)) << static_cast<int>(failing) << ", call " << nth << ", " << path;
    }
}

}  // namespace
