#include "hardware/info.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <random>

namespace {

using namespace qel::vexa;  // NOLINT(google-build-using-namespace)
using bytes = std::vector<std::byte>;

// One property, its value in 1 << size_code bytes.
bytes property(std::uint32_t key, unsigned size_code, std::uint64_t value) {
    bytes result;
    const std::uint32_t header = key << 2 | size_code;
    for (unsigned i = 0; i < 4; ++i) {
        result.push_back(static_cast<std::byte>(header >> 8 * i));
    }
    for (unsigned i = 0; i < 1U << size_code; ++i) {
        result.push_back(static_cast<std::byte>(value >> 8 * i));
    }
    return result;
}

bytes operator+(bytes a, const bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

const bytes product_9 = property(1, 2, 0x9002);
const bytes one_group = property(62, 2, 1) + property(64, 3, 0xf);
const bytes sound = product_9 + one_group;

struct outcome {
    int error;  // of the generic category
    hardware::gpu_info gpu;
};

// Decodes from a block of exactly the blob's size, so that a sanitizer sees any byte read beyond it.
outcome decode(const bytes& blob) {
    const std::unique_ptr<std::byte[]> exact(new std::byte[blob.size()]);
    std::copy(blob.begin(), blob.end(), exact.get());
    std::error_code ec;
    const hardware::gpu_info gpu = hardware::info({exact.get(), blob.size()}, ec);
    EXPECT_TRUE(!ec || ec.category() == std::generic_category());
    return {ec.value(), gpu};
}

bool all_zero(const hardware::gpu_info& gpu) {
    static_assert(sizeof gpu == 28);
    const char zeros[sizeof gpu] = {};
    return std::memcmp(&gpu, zeros, sizeof gpu) == 0;
}

TEST(Info, DamagedBlobsAndTheirErrors) {
    const bytes long_value = property(25, 3, ~0ULL);
    const bytes cut(long_value.begin(), long_value.begin() + 10);
    const struct {
        const char* what;
        bytes blob;
        int error;
    } cases[] = {
        {"empty", {}, EPROTO},
        {"half a header", bytes(3), EPROTO},
        {"a long value cut off", sound + cut, EPROTO},
        {"header alone at the end", sound + bytes(4), EPROTO},
        {"no product", one_group, EPROTO},
        {"no number of groups", product_9 + property(64, 3, 0xf), EPROTO},
        {"no mask", product_9 + property(62, 2, 1), EPROTO},
        {"mask in its upper half only", product_9 + property(62, 2, 1) + property(64, 3, 1ULL << 32), EPROTO},
        {"cores beyond the groups alone", product_9 + property(62, 2, 1) + property(65, 3, 0xf), EPROTO},
        {"masked id of zero", property(1, 2, 0x0ff0) + one_group, EINVAL},
        {"unknown id", property(1, 2, 0x7004) + one_group, EOPNOTSUPP},
        {"unknown id, then damage", property(1, 2, 0x7004) + bytes(1), EOPNOTSUPP},
    };
    for (const auto& c : cases) {
        const outcome result = decode(c.blob);
        EXPECT_EQ(result.error, c.error) << c.what;
        EXPECT_TRUE(all_zero(result.gpu)) << c.what;
    }
    // The caller's error is kept.
    const std::error_code before(5, std::system_category());
    for (const bytes& blob : {sound, one_group}) {
        std::error_code ec = before;
        EXPECT_TRUE(all_zero(hardware::info(blob, ec)) && ec == before);
    }
}

TEST(Info, NumbersComeFromTheirKeys) {
    const outcome result =
        decode(sound + property(3, 1, 2) + property(4, 1, 3) + property(15, 0, 4) +
               property(29, 2, 0x07123456) + property(99, 3, ~0ULL) + property(0x3fffffff, 0, 1));
    ASSERT_EQ(result.error, 0);
    EXPECT_EQ(static_cast<std::uint32_t>(result.gpu.product), 9U);
    EXPECT_EQ(result.gpu.minor_revision, 2U);
    EXPECT_EQ(result.gpu.major_revision, 3U);
    EXPECT_EQ(result.gpu.l2_slice_count, 4U);
    // The later of two wins; a value wider than its number counts with its low word.
    EXPECT_EQ(decode(sound + property(15, 0, 4) + property(15, 3, 0xffff'ffff'0000'0002)).gpu.l2_slice_count,
              2U);
    // The cores are those of all groups that count.
    const auto masks =
        property(64, 3, 0xf) + property(65, 3, 0xabcd'0000'00f0) + property(79, 2, 0x8000'0000);
    const struct {
        std::uint64_t groups;
        std::uint32_t mask, cores;
    } cases[] = {{1, 0xf, 4},          {2, 0xff, 8},         {15, 0xff, 8},
                 {16, 0x8000'00ff, 9}, {17, 0x8000'00ff, 9}, {~0ULL, 0x8000'00ff, 9}};
    for (const auto& c : cases) {
        const hardware::gpu_info gpu = decode(product_9 + property(62, 3, c.groups) + masks).gpu;
        EXPECT_TRUE(gpu.shader_core_mask == c.mask && gpu.shader_core_count == c.cores) << c.groups;
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
        std::error_code ec;
        std::error_code masked_ec;
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
    std::error_code ec;
    EXPECT_EQ(hardware::detail::to_product(0x7003, ec), hardware::product{0});
    EXPECT_FALSE(ec);
}

TEST(Info, AnyBytesGiveADefinedResult) {
    std::mt19937 random(1);
    for (int round = 0; round < 20000; ++round) {
        bytes blob = round % 2 == 0 ? sound : bytes();
        for (std::size_t left = random() % 64; left > 0; --left) {
            blob.push_back(static_cast<std::byte>(random() % 4 == 0 ? random() % 80 * 4 : random()));
        }
        const outcome result = decode(blob);
        ASSERT_TRUE(result.error == 0 || result.error == EPROTO || result.error == EINVAL ||
                    result.error == EOPNOTSUPP);
        ASSERT_EQ(result.error != 0, all_zero(result.gpu));
    }
}

}  // namespace
