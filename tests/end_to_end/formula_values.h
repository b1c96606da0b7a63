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

// Expects these counters, and the samples from number 1 on, which the times tell, without one missing: number
// 0 only sets the time base. Their values are those of the evaluators on the same words, within the limits
// that a session keeps.
inline void expect_formula_values(const qel::vexa::report::counter_sequence& sequence,
                                  const std::vector<std::uint32_t>& ids,
                                  const qel::vexa::hwc::product& product,
                                  const qel::vexa::virtual_gpu::gpu_description& gpu,
                                  std::uint64_t period_ns) {
    using namespace qel::vexa;  // NOLINT(google-build-using-namespace)
    const auto are_of_these_ids = [&ids](const auto& things) {
        return std::equal(things.begin(), things.end(), ids.begin(), ids.end(),
                          [](const auto& thing, std::uint32_t id) { return thing.id == id; });
    };
    ASSERT_TRUE(are_of_these_ids(sequence.counters));
    hwc::profiler profiler(product, 5);
    std::vector<std::uint32_t> words(virtual_gpu::sample_layout(gpu).word_count());
    std::uint64_t number = 0;
    for (const report::counter_sample& sample : sequence.samples) {
        ++number;
        ASSERT_EQ(sample.timestamp, sequence.samples[0].timestamp + (number - 1) * period_ns);
        ASSERT_TRUE(are_of_these_ids(sample.values));
        for (std::size_t w = 0; w < words.size(); ++w) {
            words[w] = virtual_gpu::formula_word(number, w / 64, w % 64);
        }
        profiler.gpu_cycles = virtual_gpu::formula_cycles(number);
        for (const report::counter_value& value : sample.values) {
            const hwc::vexa_counter_descriptor& row = *product.counters->find(value.id);
            double expected = profiler.get_value_for_counter(words.data(), row).value();
            expected = row.evaluator != nullptr ? std::max(expected, 0.0) : expected;
            expected = row.numerator_units == 37 ? std::min(expected, 100.0) : expected;
            ASSERT_EQ(std::bit_cast<std::uint64_t>(value.value), std::bit_cast<std::uint64_t>(expected))
                << row.name << " in sample " << number << " of GPU " << std::hex << gpu.product_id;
        }
    }
}

// The ids of all rows of a product, ascending.
inline std::vector<std::uint32_t> all_ids(const qel::vexa::hwc::product& product) {
    std::vector<std::uint32_t> result;
    for (const auto& row : *product.counters) {
        result.push_back(row.id);
    }
    std::sort(result.begin(), result.end());
    return result;
}

// Has the producer of this name share so much memory with the service that nothing is lost where that does
// not get to run for some seconds.
inline std::string with_room_for(const std::string& producer) {
    return " producers { producer_name: \"" + producer + "\" shm_size_kb: 32768 page_size_kb: 32 }";
}

}  // namespace test_support
