// The evaluation of counters over one sample.
//
// A sample is a sequence of blocks of 64 words each, one word for each counter: the job manager's block, the
// tiler's, one for each L2 slice, and the shader cores'. A core's block stands at its bit number in the core
// mask, not at its rank among the present cores, so that a mask with holes leaves blocks that no counter
// reads.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "hwc/counter_descriptor.h"
#include "hwc/counter_table.h"
#include "hwc/product.h"
#include "hwc/saturating_double.h"

namespace qel::vexa::hwc {

class profiler;

// Classes of blocks, with a bit for each.
using block_classes = std::uint32_t;

// The values of all raw counters in one sample, taken in one pass over its blocks.
class raw_values {
public:
    static constexpr std::uint32_t count = 4 * counters_per_block;
    static constexpr block_classes all_classes = (1U << count / counters_per_block) - 1;

    // The class of the blocks that the counter with this id is read from: none when it is no raw counter.
    static constexpr block_classes class_of(std::uint32_t id) {
        return id < count ? 1U << id / counters_per_block : 0;
    }

    // The values of the counters of these classes. No other block is read, so that a sample may lack what
    // nothing asks for. Otherwise it must have the profiler's words_read() words.
    void take(const profiler& context, const std::uint32_t* sample, block_classes classes);

    // Makes these counters 0.
    void clear(const std::vector<std::uint32_t>& ids) {
        for (const std::uint32_t id : ids) {
            values_[id] = 0;
        }
    }

    // The counter with this id, whether a table has it or not: a word of the job manager's or the tiler's
    // block, the sum over the L2 slices, or the mean over the shader cores. Its class must have been taken.
    saturating_double operator[](std::uint32_t id) const { return saturating_double::valid(values_[id]); }

private:
    std::array<double, count> values_;
};

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
        return (2 + std::uint64_t{l2_slice_count} + cores) * counters_per_block;
    }

    // The value of a row in a sample; a raw counter of L2 slices is their sum, one of shader cores their
    // mean. An id without a meaning gives 0. Reads only, and nothing is kept between calls. The sample must
    // have words_read() words. Whoever evaluates many rows of a sample has it in hand meanwhile.
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
        return raw_value(sample, id);
    }

    // What operands read in a sample: the raw counters of these classes, 0 for those that the table lacks.
    // Taken already when the sample is in hand. Valid until the next call.
    const raw_values& operands_in(const std::uint32_t* sample, block_classes classes) const {
        const bool is_in_hand = sample == in_hand_ && (classes & ~classes_in_hand_) == 0;
        return is_in_hand ? values_in_hand_ : take_operands(scratch_, sample, classes);
    }

    // The operand that counts the GPU's cycles: 0 when the table has no such row.
    saturating_double cycles_operand() const {
        return has_gpu_cycles_ ? saturating_double(gpu_cycles) : saturating_double();
    }

    const counter_table& counters;
    std::uint32_t shader_core_count;
    std::uint32_t l2_slice_count;
    std::uint32_t bus_width_bytes;
    std::vector<std::uint32_t> core_indices;  // the bit numbers of the core mask, ascending
    std::uint64_t gpu_cycles = 0;             // of the sample in hand; the sample callback stores it

private:
    friend class sample_in_hand;

    saturating_double raw_value(const std::uint32_t* sample, std::uint32_t id) const;
    const raw_values& take_operands(raw_values& values, const std::uint32_t* sample,
                                    block_classes classes) const;

    const std::uint32_t* in_hand_ = nullptr;
    raw_values values_in_hand_;
    block_classes classes_in_hand_ = 0;
    mutable raw_values scratch_;  // for samples that are not in hand
    // What the table lacks, looked up once for all samples.
    std::vector<std::uint32_t> absent_raw_counters_;
    bool has_gpu_cycles_;
};

// While it lives, a sample's blocks of these classes have been added up once for all of its rows, and the
// sample's words must not change. One at a time for a profiler, in the profiler's thread.
class sample_in_hand {
public:
    sample_in_hand(profiler& context, const std::uint32_t* sample,
                   block_classes classes = raw_values::all_classes)
        : context_(context) {
        context.take_operands(context.values_in_hand_, sample, classes);
        context.in_hand_ = sample;
        context.classes_in_hand_ = classes;
    }
    ~sample_in_hand() { context_.in_hand_ = nullptr; }
    sample_in_hand(const sample_in_hand&) = delete;
    sample_in_hand& operator=(const sample_in_hand&) = delete;

private:
    profiler& context_;
};

}  // namespace qel::vexa::hwc
