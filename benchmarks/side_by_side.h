// Measures two ways to do the same thing in one run.
#pragma once

#include <benchmark/benchmark.h>
#include <time.h>

#include <algorithm>
#include <cstdlib>
#include <string_view>
#include <thread>
#include <vector>

namespace qel::vexa::benchmarks {

inline double median(std::vector<double>& numbers) {
    const auto middle = numbers.begin() + static_cast<std::ptrdiff_t>(numbers.size() / 2);
    std::nth_element(numbers.begin(), middle, numbers.end());
    return *middle;
}

// The seconds of processor time that the calling thread has had: the clock for work that neither waits nor
// shares.
inline double thread_time() {
    timespec time;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

// A process that never had a second thread takes locks without atomic operations. The product has threads.
inline void have_had_threads() {
    std::thread([] {}).join();
}

// Runs `ours` and `theirs` in turn, so that both see the same moments of the machine. Each does `items`
// pieces of work and returns the seconds that it took. The counters are nanoseconds for one item and the
// ratio of ours to theirs, so that below 1 ours is the faster. They are medians, the ratio that of each turn,
// which leave out the turns that other processes disturbed.
//
// To count instructions, the environment can ask for one side alone: BENCHMARK_SIDE, "ours" or "theirs", in
// BENCHMARK_TURNS turns.
template <typename Ours, typename Theirs>
void side_by_side(benchmark::State& state, double items, Ours ours, Theirs theirs) {
    if (const char* const side = std::getenv("BENCHMARK_SIDE"); side != nullptr) {
        const char* const turns = std::getenv("BENCHMARK_TURNS");
        for (auto _ : state) {
            for (int i = turns != nullptr ? std::atoi(turns) : 1; i > 0; --i) {
                static_cast<void>(std::string_view(side) == "ours" ? ours() : theirs());
            }
            constexpr double more_than_any_run_takes = 1e6;
            state.SetIterationTime(more_than_any_run_takes);
        }
        state.counters["items"] =
            items * (turns != nullptr ? std::atoi(turns) : 1) * static_cast<double>(state.iterations());
        return;
    }
    std::vector<double> our_times;
    std::vector<double> their_times;
    std::vector<double> ratios;
    for (auto _ : state) {
        our_times.push_back(ours());
        their_times.push_back(theirs());
        ratios.push_back(our_times.back() / their_times.back());
        state.SetIterationTime(our_times.back() + their_times.back());
    }
    state.counters["ours_ns"] = median(our_times) / items * 1e9;
    state.counters["theirs_ns"] = median(their_times) / items * 1e9;
    state.counters["ratio"] = median(ratios);
}

}  // namespace qel::vexa::benchmarks
