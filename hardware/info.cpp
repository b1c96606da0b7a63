#include "hardware/info.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <optional>

#include "base/kernel_requests.h"

namespace qel::vexa::hardware {

namespace {

// The property keys that matter here.
enum property_key : std::uint32_t {
    key_product_id = 1,
    key_minor_revision = 3,
    key_major_revision = 4,
    key_l2_slice_count = 15,
    key_l2_features = 29,
    key_core_group_count = 62,
    key_first_core_group_mask = 64,
};
constexpr std::size_t core_group_capacity = 16;

constexpr std::size_t header_size = 4;
constexpr unsigned bus_width_shift = 24;  // where the L2 features hold log2 of the bus width in bits

struct property {
    std::uint32_t key;
    std::uint64_t value;

    std::uint32_t word() const { return static_cast<std::uint32_t>(value); }
};

std::uint64_t little_endian(std::span<const std::byte> bytes) {
    std::uint64_t value = 0;
    for (std::size_t i = bytes.size(); i-- > 0;) {
        value = value << 8 | std::to_integer<std::uint64_t>(bytes[i]);
    }
    return value;
}

// Takes the next property off the front; nothing when the bytes end inside it.
std::optional<property> take_property(std::span<const std::byte>& bytes) {
    if (bytes.size() < header_size) {
        return std::nullopt;
    }
    const auto header = static_cast<std::uint32_t>(little_endian(bytes.first(header_size)));
    const std::size_t value_size = std::size_t{1} << (header & ((1U << BASE_PROPERTY_SIZE_CODE_BITS) - 1));
    bytes = bytes.subspan(header_size);
    if (bytes.size() < value_size) {
        return std::nullopt;
    }
    const property result{.key = header >> BASE_PROPERTY_SIZE_CODE_BITS,
                          .value = little_endian(bytes.first(value_size))};
    bytes = bytes.subspan(value_size);
    return result;
}

std::uint32_t bus_width_bytes(std::uint32_t l2_features) {
    const std::uint32_t log2_bits = l2_features >> bus_width_shift;
    const std::uint32_t bits = log2_bits < 32 ? std::uint32_t{1} << log2_bits : 0;
    // The quotient is a signed one, so that 31 gives a negative number. No such bus exists; the number stands
    // as it is.
    return static_cast<std::uint32_t>(static_cast<std::int32_t>(bits) / 8);
}

}  // namespace

gpu_info info(std::span<const std::byte> bytes, std::error_code& ec) {
    const auto fail = [&ec](int error) {
        ec = std::error_code(error, std::generic_category());
        return gpu_info{};
    };
    gpu_info result;
    bool product_seen = false;
    std::uint64_t core_group_count = 0;
    std::array<std::uint64_t, core_group_capacity> core_group_masks{};

    while (!bytes.empty()) {
        const std::optional<property> next = take_property(bytes);
        if (!next) {
            return fail(EPROTO);
        }
        if (ec) {
            return {};
        }
        switch (next->key) {
            case key_product_id:
                result.product = detail::to_product(next->value, ec);
                if (ec) {
                    return {};
                }
                product_seen = true;
                break;
            case key_minor_revision:
                result.minor_revision = next->word();
                break;
            case key_major_revision:
                result.major_revision = next->word();
                break;
            case key_l2_slice_count:
                result.l2_slice_count = next->word();
                break;
            case key_l2_features:
                result.bus_width_bytes = bus_width_bytes(next->word());
                break;
            case key_core_group_count:
                core_group_count = next->value;
                break;
            default:
                if (next->key >= key_first_core_group_mask &&
                    next->key < key_first_core_group_mask + core_group_capacity) {
                    core_group_masks[next->key - key_first_core_group_mask] = next->value;
                }
                break;
        }
    }

    // A count beyond the masks that there can be takes all of them.
    const auto counted =
        static_cast<std::size_t>(std::min<std::uint64_t>(core_group_count, core_group_masks.size()));
    for (std::size_t group = 0; group < counted; ++group) {
        result.shader_core_mask |= static_cast<std::uint32_t>(core_group_masks[group]);
    }
    if (!product_seen || result.shader_core_mask == 0) {
        return fail(EPROTO);
    }
    result.shader_core_count = static_cast<std::uint32_t>(std::popcount(result.shader_core_mask));
    return result;
}

namespace detail {

product to_product(std::uint64_t id, std::error_code& ec) {
    struct row {
        std::uint32_t masked_id;
        std::uint32_t product;
    };
    static constexpr std::array rows = std::to_array<row>({
        {0x6000, 5},
        {0x6001, 6},
        {0x7000, 1},
        {0x7001, 7},
        {0x7002, 2},
        {0x7003, 0},
        {0x9000, 8},
        {0x9001, 3},  // one product with 0x9003, deliberately
        {0x9002, 9},
        {0x9003, 3},
        {0x9004, 4},
        {0xa002, 13},
        {0xa003, 11},
        {0xa004, 10},
        {0xa007, 12},
    });
    constexpr std::uint64_t id_mask = 0xf00f;

    const std::uint64_t masked_id = id & id_mask;
    const auto found = std::find_if(rows.begin(), rows.end(),
                                    [masked_id](const row& r) { return r.masked_id == masked_id; });
    if (found != rows.end()) {
        return product{found->product};
    }
    ec = std::error_code(masked_id == 0 ? EINVAL : EOPNOTSUPP, std::generic_category());
    return {};
}

}  // namespace detail
}  // namespace qel::vexa::hardware
