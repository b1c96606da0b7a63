// A GPU put together by hand; it has no device behind it.
#pragma once

#include <bit>
#include <cstdint>

#include "hwc/product.h"

inline qel::vexa::hwc::product hand_made_gpu(const qel::vexa::hwc::counter_table& rows,
                                             std::uint32_t core_mask, std::uint32_t l2_slices,
                                             std::uint32_t bus_width_bytes = 16) {
    std::error_code ec;
    qel::vexa::hwc::product gpu({.shader_core_count = static_cast<std::uint32_t>(std::popcount(core_mask)),
                                 .shader_core_mask = core_mask,
                                 .l2_slice_count = l2_slices,
                                 .bus_width_bytes = bus_width_bytes},
                                ec);
    gpu.counters = &rows;
    return gpu;
}
