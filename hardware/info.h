// Which GPU this is: the kernel driver's property bytes, and the few numbers that they boil down to.
//
// None of these functions logs, and any thread may call them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <system_error>
#include <vector>

#include "stx/allocator.h"
#include "stx/path.h"

namespace qel::vexa::hardware {

// The GPU products are plain numbers from 0 on; they have no names.
enum class product : std::uint32_t {};
inline constexpr std::uint32_t product_count = 14;

// What info() finds out.
struct gpu_info {
    hardware::product product{};
    std::uint32_t major_revision = 0;
    std::uint32_t minor_revision = 0;
    std::uint32_t shader_core_count = 0;  // the bits set in the mask
    std::uint32_t shader_core_mask = 0;   // bit k stands for the core with index k
    std::uint32_t l2_slice_count = 0;
    std::uint32_t bus_width_bytes = 0;  // of the external bus
};

using property_bytes = std::vector<std::byte, stx::allocator<std::byte>>;

// Reads the property bytes from a device node, on a descriptor of its own. On failure the result is empty and
// ec is ENODEV of the generic category when the node can't be opened, -1 of the system category when the
// driver refuses a request, or ENOMEM of the generic category. Accepts any version of the driver's interface.
property_bytes props(const stx::backport::filesystem::path& path, std::error_code& ec);

// Decodes property bytes. ec must be clear. On failure all words of the result are zero and ec, of the
// generic category, is EPROTO for bytes that are cut off or lack the product, the core groups or any core, or
// what to_product gives.
gpu_info info(std::span<const std::byte> bytes, std::error_code& ec);

namespace detail {

// The product with this id, of which only some of the low 16 bits count. On failure 0, which is a product as
// well, and ec of the generic category is EINVAL for an id of zero, EOPNOTSUPP for an unknown one.
product to_product(std::uint64_t id, std::error_code& ec);

}  // namespace detail
}  // namespace qel::vexa::hardware
