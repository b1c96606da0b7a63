// The formatter against the C library's, on the messages of this system and on doubles of everyday size. Each
// line's time is nanoseconds for one text.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <random>
#include <vector>

#include "benchmarks/side_by_side.h"
#include "cutils/cstr/vexa_cutils_cstr.h"

namespace {

namespace benchmarks = qel::vexa::benchmarks;

constexpr int TEXTS_PER_PASS = 1024;
constexpr std::size_t BUFFER_SIZE = 512;

// Times both on the calling thread's own processor time, for formatting neither waits nor shares.
template <typename Ours, typename Theirs>
void compare(benchmark::State& state, Ours ours, Theirs theirs) {
    const auto timed = [](const auto& format_one) {
        char text[BUFFER_SIZE];
        const double start = benchmarks::thread_time();
        for (int i = 0; i < TEXTS_PER_PASS; ++i) {
            format_one(text, i);
            benchmark::DoNotOptimize(text);
            benchmark::ClobberMemory();
        }
        return benchmarks::thread_time() - start;
    };
    benchmarks::side_by_side(
        state, TEXTS_PER_PASS, [&] { return timed(ours); }, [&] { return timed(theirs); });
}

void message(benchmark::State& state, const char* known_format, auto... args) {
    // What the compiler can't see, it can't check or fold.
    const char* volatile hidden_format = known_format;
    const char* const format = hidden_format;
    compare(
        state, [&](char* text, int /*i*/) { cutils_cstr_snprintf(text, BUFFER_SIZE, format, args...); },
        [&](char* text, int /*i*/) { std::snprintf(text, BUFFER_SIZE, format, args...); });
}

// Doubles between two powers of ten, each power as often as the others.
void doubles(benchmark::State& state, double low, double high) {
    std::mt19937_64 random(1);  // NOLINT(cert-msc51-cpp): the same values in every run
    std::uniform_real_distribution<double> power(low, high);
    std::vector<double> values(TEXTS_PER_PASS);
    for (double& value : values) {
        value = std::pow(10.0, power(random));
    }
    compare(
        state,
        [&](char* text, int i) {
            cutils_cstr_snprintf(text, BUFFER_SIZE, "%f", values[static_cast<std::size_t>(i)]);
        },
        [&](char* text, int i) {
            std::snprintf(text, BUFFER_SIZE, "%f", values[static_cast<std::size_t>(i)]);
        });
}

BENCHMARK_CAPTURE(message, node_name, "%s%d", "/dev/vexa", 0)->UseManualTime();
BENCHMARK_CAPTURE(message, command_line, "/proc/%d/cmdline", 12345)->UseManualTime();
BENCHMARK_CAPTURE(message, report_header, "==>[%s] (%s) %s: %s %s\n", "ERROR", "gpu-hwc-periodi", "CUTILS",
                  "In file: osu/platform_dummy/vexa_osu  line: 935", "osup_startup")
    ->UseManualTime();
BENCHMARK_CAPTURE(message, context_failure, "Failed creating base context during %s.",
                  "tracking page mapping")
    ->UseManualTime();
BENCHMARK_CAPTURE(
    message, incompatible,
    "ERROR: The DDK (built for 0x%x r%dp%d status range [%d..%d]) is not compatible with this Vexa GPU "
    "device, %s detected as 0x%x r%dp%d status %d.",
    0x90020000, 0, 0, 0, 15, "/dev/vexa0", 0xb002, 1, 0, 3)
    ->UseManualTime();
BENCHMARK_CAPTURE(message, processor_core, "Unable to set requested CPU core %u for thread [%s].", 7U,
                  "gpu-hwc-periodi")
    ->UseManualTime();
BENCHMARK_CAPTURE(message, parse_error, "Parse error on line %zu of %s: %s.", std::size_t{12},
                  "/data/data/com.vexa.testjava/.vexa_config", "Missing '='")
    ->UseManualTime();
BENCHMARK_CAPTURE(message, unknown_feature, "Unrecognized feature name '%.*s' in permissions '%s'", 7,
                  "WARNING:CUTILS", "WARNING:CUTILS")
    ->UseManualTime();

BENCHMARK_CAPTURE(doubles, thousandth_to_one, -3.0, 0.0)->UseManualTime();
BENCHMARK_CAPTURE(doubles, one_to_thousand, 0.0, 3.0)->UseManualTime();
BENCHMARK_CAPTURE(doubles, thousand_to_million, 3.0, 6.0)->UseManualTime();
BENCHMARK_CAPTURE(doubles, million_to_billion, 6.0, 9.0)->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
