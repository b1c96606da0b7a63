// The early product detection on any property bytes: a defined error or a GPU that could be, and no byte
// beyond them.

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <memory>

#include "hardware/info.h"

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
    if (!is_defined) {
        std::abort();
    }
    return 0;
}
