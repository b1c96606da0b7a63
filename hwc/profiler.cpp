#include "hwc/profiler.h"

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <utility>

namespace qel::vexa::hwc {

namespace {

constexpr std::uint32_t first_version_with_core_layout = 5;
// A list of as many indices could not be addressed by a 32-bit process. No mask has that many cores.
constexpr std::uint32_t core_count_limit = 0x40000000;

// Exact for sums below 2 to the power 52, and no sample has a larger one: such a sum is the fraction of a
// double whose lowest bit counts 1. 32-bit processors convert no integer that is so wide, and none of those
// that work on several numbers at once.
double to_double(std::uint64_t sum) {
    constexpr double lowest_bit_is_one = 0x1p52;
    return std::bit_cast<double>(sum | std::bit_cast<std::uint64_t>(lowest_bit_is_one)) - lowest_bit_is_one;
}

// Adds up each counter over blocks. for_each_block(take) gives take the first word of each. A few counters at
// a time, each written out, so that their sums stay in the processor's registers.
template <typename Blocks, std::size_t... i>
void add_up(double* result, Blocks for_each_block, std::index_sequence<i...> /*at_once*/) {
    constexpr std::size_t at_once = sizeof...(i);
    static_assert(counters_per_block % at_once == 0);
    for (std::size_t first = 0; first < counters_per_block; first += at_once) {
        std::array<std::uint64_t, at_once> sums{};
        for_each_block([&sums, first](const std::uint32_t* block) { ((sums[i] += block[first + i]), ...); });
        ((result[first + i] = to_double(sums[i])), ...);
    }
}
constexpr std::make_index_sequence<4> four_at_once;

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
    const std::uint32_t* const slices = sample + memory_system;
    const std::uint32_t* const cores = slices + std::size_t{context.l2_slice_count} * counters_per_block;
    if ((classes & class_of(memory_system)) != 0) {
        add_up(
            values_.data() + memory_system,
            [slices, cores](auto take) {
                for (const std::uint32_t* block = slices; block != cores; block += counters_per_block) {
                    take(block);
                }
            },
            four_at_once);
    }
    if ((classes & class_of(shader_core)) != 0) {
        double* const means = values_.data() + shader_core;
        add_up(
            means,
            [&context, cores](auto take) {
                for (const std::uint32_t core : context.core_indices) {
                    take(cores + std::size_t{core} * counters_per_block);
                }
            },
            four_at_once);
        // Without cores their sums are 0, and so are the means.
        const double core_count = context.shader_core_count == 0 ? 1 : context.shader_core_count;
        for (std::size_t i = 0; i < counters_per_block; ++i) {
            means[i] /= core_count;
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
        if (counters.find(id) == nullptr) {
            absent_raw_counters_.push_back(id);
        }
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

saturating_double profiler::raw_value(const std::uint32_t* sample, std::uint32_t id) const {
    if (id >= raw_values::count) {
        return {};
    }
    if (counters.find(id) != nullptr) {
        return operands_in(sample, raw_values::class_of(id))[id];
    }
    // A row that the table does not have reads its counter all the same.
    scratch_.take(*this, sample, raw_values::class_of(id));
    return scratch_[id];
}

const raw_values& profiler::take_operands(raw_values& values, const std::uint32_t* sample,
                                          block_classes classes) const {
    values.take(*this, sample, classes);
    values.clear(absent_raw_counters_);
    return values;
}

}  // namespace qel::vexa::hwc
