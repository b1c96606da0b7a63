// Early product detection: the property bytes of a device node, and what they say of the GPU.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>

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

std::error_code generic(int error) {
    return {error, std::generic_category()};
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
    const std::error_code before(5, std::system_category());
    const struct {
        const char* what;
        bytes blob;
        std::error_code expected, before = {};
    } cases[] = {
        {"empty", {}, generic(EPROTO)},
        {"half a header", bytes(3), generic(EPROTO)},
        {"a long value cut off", sound + property(25, 3, ~0ULL, 2), generic(EPROTO)},
        {"header alone at the end", sound + bytes(4), generic(EPROTO)},
        {"no product", one_group, generic(EPROTO)},
        {"no number of groups", product_9 + property(64, 3, 0xf), generic(EPROTO)},
        {"no mask", product_9 + property(62, 2, 1), generic(EPROTO)},
        {"mask in its upper half only", product_9 + property(62, 2, 1) + property(64, 3, 1ULL << 32),
         generic(EPROTO)},
        {"cores beyond the groups alone", product_9 + property(62, 2, 1) + property(65, 3, 0xf),
         generic(EPROTO)},
        {"masked id of zero", property(1, 2, 0x0ff0) + one_group, generic(EINVAL)},
        {"unknown id", property(1, 2, 0x7004) + one_group, generic(EOPNOTSUPP)},
        {"unknown id, then damage", property(1, 2, 0x7004) + bytes(1), generic(EOPNOTSUPP)},
        {"an error from before", sound, before, before},
        {"an error from before, and no product", one_group, before, before},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(decode(c.blob, c.before).error, c.expected) << c.what;
    }
}

TEST(Info, NumbersComeFromTheirKeys) {
    const auto [error, gpu] =
        decode(sound + property(3, 1, 2) + property(4, 1, 3) + property(15, 0, 4) +
               property(29, 2, 0x07123456) + property(99, 3, ~0ULL) + property(0x3fffffff, 0, 1));
    ASSERT_FALSE(error);
    EXPECT_EQ(static_cast<std::uint32_t>(gpu.product), 9U);
    EXPECT_EQ(gpu.minor_revision, 2U);
    EXPECT_EQ(gpu.major_revision, 3U);
    EXPECT_EQ(gpu.l2_slice_count, 4U);
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

// What the node at a path gives, on a machine with one GPU or, without a description, with none.
hardware::property_bytes read(const std::optional<virtual_gpu::gpu_description>& gpu, std::error_code& ec,
                              const std::string& path = "/dev/vexa0") {
    const held_resources before = held_resources::now();
    if (gpu.has_value()) {
        machine::add_node(0, *gpu);
    }
    const hardware::property_bytes result = hardware::props(path, ec);
    EXPECT_EQ(held_resources::now().descriptors, before.descriptors);
    return result;
}

TEST(Props, RequestsAndResult) {
    for (const bool empty : {false, true}) {
        virtual_gpu::gpu_description gpu;
        if (empty) {
            gpu.raw_properties.emplace();
            gpu.kernel_version = {1, 0};  // any version will do
        }
        machine::reset();
        std::error_code ec;
        const bytes blob = read(gpu, ec);
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

// The first answer stays the length.
TEST(Props, LengthsThatChange) {
    const bytes blob = virtual_gpu::property_blob({});
    for (const int later : {0, 5, 1 << 30}) {
        int count = 0;
        change_answer = [&](unsigned long number, void*, int result) {
            return number == 0x4010'8003 && ++count == 2 ? later : result;
        };
        machine::reset();
        std::error_code ec;
        EXPECT_EQ(read(virtual_gpu::gpu_description(), ec), blob);
        change_answer = nullptr;
        EXPECT_FALSE(ec);
    }
}

TEST(Props, EveryRefusal) {
    const std::error_code refused(-1, std::system_category());
    const struct {
        request_kind kind;
        unsigned nth;
        int error;
        std::error_code expected;
    } cases[] = {
        {request_kind::open, 1, EACCES, generic(ENODEV)},
        {request_kind::version_check, 1, ENOTTY, {}},  // the second number serves
        {request_kind::version_check_second, 1, EBUSY, refused},
        {request_kind::set_flags, 1, EPERM, refused},
        {request_kind::get_properties, 1, EINVAL, refused},
        {request_kind::get_properties, 2, EIO, refused},
    };
    for (const auto& [kind, nth, error, expected] : cases) {
        machine::reset();
        machine::fail(kind, error, nth);
        if (kind == request_kind::version_check_second) {
            machine::fail(request_kind::version_check, EINVAL);
        }
        std::error_code ec;
        EXPECT_EQ(read(virtual_gpu::gpu_description(), ec).empty(), static_cast<bool>(expected));
        EXPECT_EQ(ec, expected) << static_cast<int>(kind) << ", call " << nth;
    }
    // Files that are no GPU.
    machine::reset();
    const temporary_folder folder;
    std::ofstream(folder.file("plain")).close();
    for (const auto& [path, expected] : {std::pair(std::string("/dev/vexa0"), generic(ENODEV)),
                                         {folder.file("plain"), refused},
                                         {"/", generic(ENODEV)}}) {
        std::error_code ec;
        EXPECT_TRUE(read(std::nullopt, ec, path).empty());
        EXPECT_EQ(ec, expected) << path;
    }
}

}  // namespace
