// What the look-up of operands costs: all rows of table 9 for one sample, beside the same arithmetic on words
// in hand.

#include <benchmark/benchmark.h>

#include <chrono>
#include <functional>
#include <random>
#include <tuple>
#include <vector>

#include "benchmarks/side_by_side.h"
#include "hwc/derived_rows.h"
#include "hwc/hwc_names.h"
#include "hwc/reported_rows.h"

namespace {

using namespace qel::vexa;  // NOLINT(google-build-using-namespace)
using benchmarks::side_by_side;

constexpr unsigned table = 9;
constexpr std::uint32_t l2_slices = 4;
constexpr std::uint32_t core_mask = 0x3ff;

struct setting {
    setting() : gpu("/nonexistent", ignored) {
        gpu.counters = &hwc::counter_tables[table - 1];
        gpu.shader_core_mask = core_mask;
        gpu.shader_core_count = 10;
        gpu.l2_slice_count = l2_slices;
        gpu.bus_width_bytes = 16;
        std::mt19937 random(1);
        for (std::uint32_t& word : words) {
            word = static_cast<std::uint32_t>(random() % 1000000);
        }
    }

    std::error_code ignored;
    hwc::product gpu;
    std::vector<std::uint32_t> words = std::vector<std::uint32_t>(std::size_t{64} * (2 + l2_slices + 10));
};

// The same expressions over operands that are not looked up: each id leads straight to its words.
struct direct : hwc::expression_base {
    std::uint32_t id;

    explicit constexpr direct(std::uint32_t the_id) : id(the_id) {}
    hwc::saturating_double evaluate(const hwc::profiler& profiler, const std::uint32_t* sample) const {
        hwc::saturating_double sum;
        switch (id / 64) {
            case 0:
            case 1:
                return hwc::saturating_double(sample[id]);
            case 2:
                for (std::uint32_t slice = 0; slice < profiler.l2_slice_count; ++slice) {
                    sum = sum + hwc::saturating_double(sample[(2 + slice) * 64 + id % 64]);
                }
                return sum;
            case 3:
                for (const std::uint32_t core : profiler.core_indices) {
                    sum = sum +
                          hwc::saturating_double(sample[(2 + profiler.l2_slice_count + core) * 64 + id % 64]);
                }
                return sum / hwc::saturating_double(profiler.shader_core_count);
            default:
                return hwc::saturating_double(profiler.gpu_cycles);
        }
    }
};

template <typename Expression>
constexpr Expression undirected(Expression e) {
    return e;
}
constexpr direct undirected(hwc::counter_operand counter) {
    return direct(counter.id);
}
template <hwc::operation op, typename Left, typename Right>
constexpr auto undirected(hwc::binary<op, Left, Right> e) {
    const auto left = undirected(e.left);
    const auto right = undirected(e.right);
    return hwc::binary<op, std::remove_const_t<decltype(left)>, std::remove_const_t<decltype(right)>>(left,
                                                                                                      right);
}

template <hwc::expression auto resolved>
hwc::saturating_double evaluate_directly(const hwc::profiler& profiler, const std::uint32_t* sample) {
    return resolved.evaluate(profiler, sample);
}

using evaluator_list = std::vector<hwc::counter_evaluator*>;

template <std::size_t row_index, std::size_t variant_index>
void add_variant(evaluator_list& result) {
    constexpr const auto& variant = std::get<variant_index>(hwc::derived_rows.at<row_index>().variants);
    if constexpr (variant.tables.contains(table)) {
        constexpr auto resolved = undirected(hwc::resolve<table>(variant.value));
        result.push_back(evaluate_directly<resolved>);
    }
}

template <std::size_t row_index, std::size_t... variants>
void add_row(evaluator_list& result, std::index_sequence<variants...> /*all*/) {
    (add_variant<row_index, variants>(result), ...);
}

template <std::size_t... rows>
evaluator_list direct_evaluators(std::index_sequence<rows...> /*all*/) {
    evaluator_list result;
    (add_row<rows>(
         result,
         std::make_index_sequence<
             std::tuple_size_v<std::remove_cvref_t<decltype(hwc::derived_rows.at<rows>().variants)>>>()),
     ...);
    return result;
}

double seconds_since(std::chrono::steady_clock::time_point begin) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

constexpr int samples_per_pass = 1000;

void all_rows(benchmark::State& state) {
    setting s;
    hwc::profiler profiler(s.gpu, 5);
    profiler.gpu_cycles = 8000000;
    const std::uint32_t* const words = s.words.data();
    const std::vector<std::reference_wrapper<const hwc::vexa_counter_descriptor>> all(s.gpu.counters->begin(),
                                                                                      s.gpu.counters->end());
    const hwc::reported_rows rows(profiler, all);
    const evaluator_list derived = direct_evaluators(std::make_index_sequence<hwc::derived_rows.size()>());
    std::vector<direct> raw;
    for (const hwc::vexa_counter_descriptor& row : *s.gpu.counters) {
        if (row.id < hwc::first_derived_id) {
            raw.emplace_back(row.id);
        }
    }
    if (raw.size() + derived.size() != s.gpu.counters->size()) {
        state.SkipWithError("not the same rows");
    }
    side_by_side(
        state, samples_per_pass,
        [&] {
            const auto begin = std::chrono::steady_clock::now();
            for (int n = 0; n < samples_per_pass; ++n) {
                benchmark::ClobberMemory();
                rows.evaluate(words,
                              [](std::size_t /*index*/, double value) { benchmark::DoNotOptimize(value); });
            }
            return seconds_since(begin);
        },
        [&] {
            const auto begin = std::chrono::steady_clock::now();
            for (int n = 0; n < samples_per_pass; ++n) {
                benchmark::ClobberMemory();
                for (const direct& operand : raw) {
                    benchmark::DoNotOptimize(operand.evaluate(profiler, words));
                }
                for (hwc::counter_evaluator* evaluator : derived) {
                    benchmark::DoNotOptimize(evaluator(profiler, words));
                }
            }
            return seconds_since(begin);
        });
}
BENCHMARK(all_rows)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
