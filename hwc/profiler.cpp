#include "hwc/profiler.h"

#include <algorithm>
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

void raw_values::take(const profiler& context, const std::uint32_t* sample, block_classes classes) {
    // The first id of each class.
    constexpr std::uint32_t job_manager = 0;
    constexpr std::uint32_t tiler = counters_per_block;
    constexpr std::uint32_t memory_system = 2 * counters_per_block;
    constexpr std::uint32_t shader_core = 3 * counters_per_block;
    // The job manager's and the tiler's words stand at their ids.
    for (const std::uint32_t first : {job_manager, tiler}) {
        if ((classes & class_of(first)) != 0) {
            std::copy_n(sample + first, counters_per_block, values_.begin() + first);
        }
    }
    const std::size_t first_core = std::size_t{2} + context.l2_slice_count;
    if ((classes & class_of(memory_system)) != 0) {
        block_sums sums{};
        for (std::size_t block = 2; block < first_core; ++block) {
            add(sums, sample + block * counters_per_block);
        }
        for (std::size_t i = 0; i < sums.size(); ++i) {
            values_[memory_system + i] = to_double(sums[i]);
        }
    }
    if ((classes & class_of(shader_core)) != 0) {
        block_sums sums{};
        for (const std::uint32_t core : context.core_indices) {
            add(sums, sample + (first_core + core) * counters_per_block);
        }
        // Without cores their sums are 0, and so are the means.
        const double core_count = context.shader_core_count == 0 ? 1 : context.shader_core_count;
        for (std::size_t i = 0; i < sums.size(); ++i) {
            values_[shader_core + i] = to_double(sums[i]) / core_count;
        }
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
