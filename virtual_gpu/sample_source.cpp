#include "virtual_gpu/sample_source.h"

#include <limits>

namespace qel::vexa::virtual_gpu {

namespace {

constexpr std::uint32_t all_enabled = 0xffffffff;

}  // namespace

std::uint64_t sample_source::take(const sample_interval& interval, std::span<std::uint32_t> words) {
    const std::uint64_t cycles = count(interval, words);
    for (std::size_t i = 0; i < words.size(); i += words_per_block) {
        words[i] = static_cast<std::uint32_t>(interval.end);
        words[i + 1] = static_cast<std::uint32_t>(interval.end >> 32);
        words[i + 2] = all_enabled;
        words[i + 3] = 0;
    }
    return cycles;
}

std::uint64_t scatter(std::uint64_t number) {
    // Odd multipliers and shifted copies: every step can be undone, so no two numbers meet.
    number += 0x9e37'79b9'7f4a'7c15;
    number = (number ^ number >> 32) * 0xd6e8'feb8'6659'fd93;
    number = (number ^ number >> 32) * 0xd6e8'feb8'6659'fd93;
    return number ^ number >> 32;
}

std::uint32_t formula_word(std::uint64_t sample_number, std::size_t block, std::size_t offset) {
    const std::uint64_t value = scatter(scatter(sample_number) + block * words_per_block + offset);
    switch (value >> 32 & 0x1f) {
        case 0:
            return 0;
        case 1:
            return std::numeric_limits<std::uint32_t>::max();
        default:
            return static_cast<std::uint32_t>(value);
    }
}

std::uint64_t formula_cycles(std::uint64_t sample_number) {
    const std::uint64_t value = scatter(~sample_number);
    return (value & 0xf) == 0 ? 0 : value >> 20;
}

std::uint64_t formula_source::count(const sample_interval& interval, std::span<std::uint32_t> words) {
    for (std::size_t i = 0; i < words.size(); ++i) {
        words[i] = formula_word(interval.number, i / words_per_block, i % words_per_block);
    }
    return formula_cycles(interval.number);
}

}  // namespace qel::vexa::virtual_gpu
