// Measures two ways to do the same thing in one run.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <vector>

namespace qel::vexa::benchmarks {

// Runs `ours` and `theirs` in turn, so that both see the same moments of the machine. Each does `items`
// pieces of work and returns the seconds that it took. The counters are nanoseconds for one item, as medians,
// which leave out the passes that other processes disturbed. A ratio above 1 says that ours is the faster.
template <typename Ours, typename Theirs>
void side_by_side(benchmark::State& state, double items, Ours ours, Theirs theirs) {
    std::vector<double> our_times;
    std::vector<double> their_times;
    for (auto _ : state) {
        our_times.push_back(ours());
        their_times.push_back(theirs());
        state.SetIterationTime(our_times.back() + their_times.back());
    }
    const auto median = [](std::vector<double>& times) {
        const auto middle = times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2);
        std::nth_element(times.begin(), middle, times.end());
        return *middle;
    };
    state.counters["ours_ns"] = median(our_times) / items * 1e9;
    state.counters["theirs_ns"] = median(their_times) / items * 1e9;
    state.counters["ratio"] = median(their_times) / median(our_times);
}

}  // namespace qel::vexa::benchmarks
