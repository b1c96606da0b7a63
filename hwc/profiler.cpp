#include "hwc/profiler.h"

#include <bit>
#include <cstdlib>

namespace qel::vexa::hwc {

namespace {

constexpr std::uint32_t first_version_with_core_layout = 5;
// A list of as many indices could not be addressed by a 32-bit process. No mask has that many cores.
constexpr std::uint32_t core_count_limit = 0x40000000;

// One sum for each counter of a block. No sum of words of a sample is too large to be exact as a double.
using block_sums = std::array<std::uint64_t, counters_per_block>;

void add(block_sums& sums, const std::uint32_t* block) {
    for (std::size_t i = 0; i < sums.size(); ++i) {
        sums[i] += block[i];
    }
}

// By halves: 32-bit processors convert no wider integer, and none of those that work on several numbers at
// once.
double to_double(std::uint64_t sum) {
    constexpr double high_half = 0x1p32;
    return static_cast<std::uint32_t>(sum >> 32) * high_half + static_cast<std::uint32_t>(sum);
}

}  // namespace

void raw_values::take(const profiler& context, const std::uint32_t* sample) {
    double* value = values_.data();
    // The job manager's and the tiler's words stand at their ids.
    for (std::size_t id = 0; id < std::size_t{2} * counters_per_block; ++id) {
        *value++ = sample[id];
    }
    const std::uint32_t* const slices = sample + std::size_t{2} * counters_per_block;
    const std::uint32_t* const cores = slices + std::size_t{context.l2_slice_count} * counters_per_block;
    block_sums sums{};
    for (const std::uint32_t* block = slices; block != cores; block += counters_per_block) {
        add(sums, block);
    }
    for (const std::uint64_t sum : sums) {
        *value++ = to_double(sum);
    }
    sums = {};
    for (const std::uint32_t core : context.core_indices) {
        add(sums, cores + std::size_t{core} * counters_per_block);
    }
    // Without cores their sums are 0, and so are the means.
    const double core_count = context.shader_core_count == 0 ? 1 : context.shader_core_count;
    for (const std::uint64_t sum : sums) {
        *value++ = to_double(sum) / core_count;
    }
}

profiler::profiler(const product& gpu, std::uint32_t hw_version)
    : counters(*gpu.counters),
      shader_core_count(gpu.shader_core_count),
      l2_slice_count(gpu.l2_slice_count),
      bus_width_bytes(gpu.bus_width_bytes),
      has_gpu_cycles_(counters.find(gpu_cycles_id) != nullptr) {
    for (std::uint32_t id = 0; id < raw_values::count; ++id) {
        has_raw_counter_[id] = counters.find(id) != nullptr;
    }
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
