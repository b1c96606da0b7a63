// One error message from end to end, beside the C library's fprintf and fflush, both to a stderr that goes to
// /dev/null. Ours also offers each message to the platform log, which takes it and throws it away here. Times
// are nanoseconds for one message.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>

#include "benchmarks/side_by_side.h"
#include "cdbg/failure.h"
#include "cdbg/print.h"

// In place of the real log, whose speed is the platform's affair.
extern "C" __attribute__((visibility("default"))) int __android_log_write(int /*priority*/,
                                                                          const char* /*tag*/,
                                                                          const char* text) {
    benchmark::DoNotOptimize(text);
    return 1;
}

namespace {

constexpr int MESSAGES_PER_PASS = 1024;

template <typename Ours, typename Theirs>
void compare(benchmark::State& state, Ours ours, Theirs theirs) {
    const auto timed = [](const auto& print_one) {
        const auto start = std::chrono::steady_clock::now();
        for (int i = 0; i < MESSAGES_PER_PASS; ++i) {
            print_one(i);
        }
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    };
    std::fflush(stderr);
    const int saved = dup(STDERR_FILENO);
    const int nowhere = open("/dev/null", O_WRONLY);
    dup2(nowhere, STDERR_FILENO);
    ours(0);  // starts diagnostics
    qel::vexa::benchmarks::side_by_side(
        state, MESSAGES_PER_PASS, [&] { return timed(ours); }, [&] { return timed(theirs); });
    dup2(saved, STDERR_FILENO);
    close(nowhere);
    close(saved);
}

void plain_line(benchmark::State& state) {
    compare(
        state, [](int i) { cdbg_print_to_error_channel("Failed creating base context during %d.\n", i); },
        [](int i) {
            std::fprintf(stderr, "Failed creating base context during %d.\n", i);
            std::fflush(stderr);
        });
}

void print_report(int i) {
    cdbgp_print_to_important_channel(CDBGP_CHANNEL_ERROR, CDBGP_FEATURE_ERROR, "OSU", CDBGP_LOCATION,
                                     "report", "Failed to setup TLS generic key %d", i);
}

void print_report_with(const char* thread, int i) {
    std::fprintf(stderr, "==>[%s] (%s) %s: %s %s\nFailed to setup TLS generic key %d\n", "ERROR", thread,
                 "OSU", CDBGP_LOCATION, "report", i);
    std::fflush(stderr);
}

void report(benchmark::State& state) {
    compare(state, print_report, [](int i) { print_report_with("error_message_b", i); });
}

// The thread's name comes from the kernel. Here both ask for it.
void report_with_name(benchmark::State& state) {
    compare(state, print_report, [](int i) {
        char name[16] = {};
        prctl(PR_GET_NAME, name, 0, 0, 0);
        print_report_with(name, i);
    });
}

BENCHMARK(plain_line)->UseManualTime();
BENCHMARK(report)->UseManualTime();
BENCHMARK(report_with_name)->UseManualTime();

}  // namespace

int main(int argument_count, char** arguments) {
    qel::vexa::benchmarks::have_had_threads();
    benchmark::Initialize(&argument_count, arguments);
    benchmark::RunSpecifiedBenchmarks();
}
