// Both readers of the properties on any bytes. The early product detection: a defined error or a GPU that
// could be. The driver context's: the same numbers where detection took them. And no byte beyond them.

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <span>

#include "base/kernel_requests.h"
#include "base/vexa_base_ioctl.h"
#include "hardware/info.h"
#include "uku/vexa_uku.h"

namespace {

std::span<const std::byte> kernel_bytes;

}  // namespace

// The linker leads the product's requests here.
extern "C" int __wrap_ioctl(int /*descriptor*/, unsigned long /*number*/, void* argument) {
    const auto& request = *static_cast<const base_property_request*>(argument);
    if (request.buffer != 0) {
        // NOLINTNEXTLINE(performance-no-int-to-ptr): the record can only carry a number
        std::copy_n(kernel_bytes.data(), request.size, reinterpret_cast<std::byte*>(request.buffer));
    }
    return static_cast<int>(kernel_bytes.size());
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace qel::vexa;  // NOLINT(google-build-using-namespace)
    // A block of exactly the size, so that a read beyond it is seen.
    const std::unique_ptr<std::byte[]> bytes(new std::byte[size]);
    std::transform(data, data + size, bytes.get(), [](std::uint8_t byte) { return std::byte{byte}; });
    std::error_code ec;
    const hardware::gpu_info gpu = hardware::info({bytes.get(), size}, ec);
    const bool is_defined =
        ec ? ec.category() == std::generic_category() && gpu.shader_core_mask == 0 &&
                 (ec.value() == EPROTO || ec.value() == EINVAL || ec.value() == EOPNOTSUPP)
           : static_cast<std::uint32_t>(gpu.product) < hardware::product_count && gpu.shader_core_mask != 0 &&
                 gpu.shader_core_count == static_cast<std::uint32_t>(std::popcount(gpu.shader_core_mask));
    kernel_bytes = {bytes.get(), size};
    const uku_context node{};
    base_gpu_props props;
    const base_result result = basep_ioctl_get_properties(&node, &props);
    std::error_code same_ec;
    const bool is_same = ec || (hardware::detail::to_product(props.product_id, same_ec) == gpu.product &&
                                props.num_l2_slices == (gpu.l2_slice_count & 0xff) &&
                                props.major_revision == (gpu.major_revision & 0xffff) &&
                                props.minor_revision == (gpu.minor_revision & 0xffff));
    if (!is_defined || result != BASE_SUCCESS || !is_same) {
        std::abort();
    }
    return 0;
}
