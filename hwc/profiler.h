// The evaluation of counters over one sample.
//
// A sample is a sequence of blocks of 64 words each, one word for each counter: the job manager's block, the
// tiler's, one for each L2 slice, and the shader cores'. A core's block stands at its bit number in the core
// mask, not at its rank among the present cores, so that a mask with holes leaves blocks that no counter
// reads.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "hwc/counter_descriptor.h"
#include "hwc/counter_table.h"
#include "hwc/product.h"
#include "hwc/saturating_double.h"

namespace qel::vexa::hwc {

// What evaluators need of the GPU. Belongs to one sampling thread.
class profiler {
public:
    // The product must have a table. hw_version is the counter hardware's, from the reader; counters of a
    // version below 5 have no known layout of cores, and every shader core counter then reads as 0.
    profiler(const product& gpu, std::uint32_t hw_version);

    // How many words of a sample the rows read: up to the end of the last core's block. The numbers behind it
    // are the driver's, and the sample's size is told elsewhere, so that the two may not agree.
    std::uint64_t words_read() const {
        const std::uint64_t cores = core_indices.empty() ? 0 : std::uint64_t{core_indices.back()} + 1;
        return (memory_system_class + std::uint64_t{l2_slice_count} + cores) * counters_per_block;
    }

    // The value of a row in a sample; a raw counter of L2 slices is their sum, one of shader cores their
    // mean. An id without a meaning gives 0. Reads only, and nothing is kept between calls. The sample must
    // have words_read() words.
    saturating_double get_value_for_counter(const std::uint32_t* sample,
                                            const vexa_counter_descriptor& descriptor) const {
        const std::uint32_t id = descriptor.id;
        if (id == gpu_cycles_id) {
            return saturating_double(gpu_cycles);
        }
        if (id >= first_derived_id) {
            return descriptor.evaluator != nullptr ? descriptor.evaluator(*this, sample)
                                                   : saturating_double();
        }
        const std::uint32_t offset = id % counters_per_block;
        switch (id / counters_per_block) {
            case job_manager_class:
            case tiler_class:
                return saturating_double(sample[id]);
            case memory_system_class:
                return sum_over_l2_slices(sample + offset);
            case shader_core_class:
                return mean_over_shader_cores(sample + offset);
            default:
                return {};
        }
    }

    const counter_table& counters;
    std::uint32_t shader_core_count;
    std::uint32_t l2_slice_count;
    std::uint32_t bus_width_bytes;
    std::vector<std::uint32_t> core_indices;  // the bit numbers of the core mask, ascending
    std::uint64_t gpu_cycles = 0;             // of the sample in hand; the sample callback stores it

private:
    // The block classes, which are also the positions of the first two blocks and of the first L2 slice's.
    static constexpr std::uint32_t job_manager_class = 0;
    static constexpr std::uint32_t tiler_class = 1;
    static constexpr std::uint32_t memory_system_class = 2;
    static constexpr std::uint32_t shader_core_class = 3;

    // Both take the address of the counter in the first block.
    saturating_double sum_over_l2_slices(const std::uint32_t* counter) const {
        saturating_double sum;
        for (std::uint32_t slice = 0; slice < l2_slice_count; ++slice) {
            sum = sum +
                  saturating_double(counter[(std::size_t{memory_system_class} + slice) * counters_per_block]);
        }
        return sum;
    }
    saturating_double mean_over_shader_cores(const std::uint32_t* counter) const {
        saturating_double sum;
        const std::size_t first_core = std::size_t{memory_system_class} + l2_slice_count;
        for (const std::uint32_t core : core_indices) {
            sum = sum + saturating_double(counter[(first_core + core) * counters_per_block]);
        }
        return sum / saturating_double(shader_core_count);
    }
};

}  // namespace qel::vexa::hwc
