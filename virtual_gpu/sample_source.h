// Where the words of the samples come from: a formula, whose every value is known beforehand.
// workload.h has the other source.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <span>

#include "virtual_gpu/device_model.h"

namespace qel::vexa::virtual_gpu {

inline constexpr std::size_t words_per_block = 64;
// A block begins with the low and the high half of the timestamp, the enable word and a reserved word; then
// counters.
inline constexpr std::size_t header_words = 4;

// The blocks of a sample: the job manager's, the tiler's, one for each L2 slice, then one for each core index
// up to the highest core, whether there is such a core or not.
struct sample_layout {
    explicit sample_layout(const gpu_description& gpu)
        : core_mask(gpu.core_mask()), l2_slices(gpu.l2_slices) {}

    std::size_t first_core_block() const { return std::size_t{2} + l2_slices; }
    std::size_t block_count() const {
        return first_core_block() + static_cast<std::size_t>(std::bit_width(core_mask));
    }
    std::size_t word_count() const { return block_count() * words_per_block; }

    std::uint64_t core_mask;
    std::size_t l2_slices;
};

// Which sample: its place in the run of samples, the first being 0, and the time that it covers, in
// nanoseconds.
struct sample_interval {
    std::uint64_t number;
    std::uint64_t begin;
    std::uint64_t end;
};

class sample_source {
public:
    virtual ~sample_source() = default;

    // Writes all words of one sample, laid out for the source's GPU, and returns how many cycles the GPU was
    // powered in that time. Called by one thread at a time.
    std::uint64_t take(const sample_interval& interval, std::span<std::uint32_t> words);

private:
    // Writes the counters; the blocks' headers are not its business.
    virtual std::uint64_t count(const sample_interval& interval, std::span<std::uint32_t> words) = 0;
};

// The word that the formula puts at an offset of a block, by the block's position in the sample. Any 32-bit
// value, now and then 0 or the largest. Holds for the counters; a header is a header.
std::uint32_t formula_word(std::uint64_t sample_number, std::size_t block, std::size_t offset);

// The GPU cycles of a sample: up to 44 bits, now and then 0.
std::uint64_t formula_cycles(std::uint64_t sample_number);

class formula_source final : public sample_source {
private:
    std::uint64_t count(const sample_interval& interval, std::span<std::uint32_t> words) override;
};

// Spreads a number over 64 bits, so that neighbours have nothing in common.
std::uint64_t scatter(std::uint64_t number);

}  // namespace qel::vexa::virtual_gpu
