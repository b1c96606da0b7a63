// What a trace has of a virtual GPU that counts by its formula.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <vector>

#include "hwc/product.h"
#include "hwc/profiler.h"
#include "virtual_gpu/sample_source.h"
#include "workstation/report/trace_file.h"

namespace test_support {

// Expects the samples from number 1 on, none twice and, but for so many in a row, none lost: number 0 only
// sets the time base. Their values are those of the evaluators on the same words, within the limits that a
// session keeps.
inline void expect_formula_values(
    const qel::vexa::report::counter_sequence& sequence, const qel::vexa::hwc::product& product,
    const qel::vexa::virtual_gpu::gpu_description& gpu,
    std::uint64_t (*cycles)(std::uint64_t) = qel::vexa::virtual_gpu::formula_cycles,
    std::uint64_t most_missed = 0) {
    using namespace qel::vexa;  // NOLINT(google-build-using-namespace)
    hwc::profiler profiler(product, 5);
    std::vector<std::uint32_t> words(virtual_gpu::sample_layout(gpu).word_count());
    std::uint64_t number = 0;
    const auto take_next = [&] {
        ++number;
        for (std::size_t w = 0; w < words.size(); ++w) {
            words[w] = virtual_gpu::formula_word(number, w / 64, w % 64);
        }
        profiler.gpu_cycles = cycles(number);
    };
    const auto is_exact = [&](const report::counter_value& value) {
        const hwc::vexa_counter_descriptor& row = *product.counters->find(value.id);
        double expected = profiler.get_value_for_counter(words.data(), row).value();
        expected = row.evaluator != nullptr ? std::max(expected, 0.0) : expected;
        expected = row.numerator_units == 37 ? std::min(expected, 100.0) : expected;
        return std::bit_cast<std::uint64_t>(value.value) == std::bit_cast<std::uint64_t>(expected);
    };
    for (const report::counter_sample& sample : sequence.samples) {
        ASSERT_EQ(sample.values.size(), sequence.counters.size());
        take_next();
        for (std::uint64_t missed = 0;
             missed < most_missed && !std::all_of(sample.values.begin(), sample.values.end(), is_exact);
             ++missed) {
            take_next();
        }
        for (std::size_t i = 0; i < sample.values.size(); ++i) {
            ASSERT_EQ(sample.values[i].id, sequence.counters[i].id);
            ASSERT_TRUE(is_exact(sample.values[i])) << sequence.counters[i].name << " in sample " << number
                                                    << " of GPU " << std::hex << gpu.product_id;
        }
    }
}

}  // namespace test_support
