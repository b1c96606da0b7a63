#include "hwc/profiler.h"

#include <bit>
#include <cstdlib>

namespace qel::vexa::hwc {

namespace {

constexpr std::uint32_t first_version_with_core_layout = 5;
// A list of as many indices could not be addressed by a 32-bit process. No mask has that many cores.
constexpr std::uint32_t core_count_limit = 0x40000000;

}  // namespace

profiler::profiler(const product& gpu, std::uint32_t hw_version)
    : counters(*gpu.counters),
      shader_core_count(gpu.shader_core_count),
      l2_slice_count(gpu.l2_slice_count),
      bus_width_bytes(gpu.bus_width_bytes) {
    if (hw_version < first_version_with_core_layout) {
        return;
    }
    if (shader_core_count >= core_count_limit) {
        std::abort();
    }
    core_indices.reserve(shader_core_count);
    for (std::uint32_t mask = gpu.shader_core_mask; mask != 0; mask &= mask - 1) {
        core_indices.push_back(static_cast<std::uint32_t>(std::countr_zero(mask)));
    }
}

}  // namespace qel::vexa::hwc
