// Loading the library, with all that it makes at load time, beside loading a library that has the tracing SDK
// and nothing else. Each load happens in a process of its own. The arguments are the two libraries.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "benchmarks/side_by_side.h"

namespace {

constexpr const char* only_load = "--only-load";

// In the process of its own: prints the seconds that one load takes.
int load(const char* path) {
    const auto begin = std::chrono::steady_clock::now();
    const void* const library = dlopen(path, RTLD_NOW);
    const std::chrono::duration<double> time = std::chrono::steady_clock::now() - begin;
    if (library == nullptr) {
        std::fprintf(stderr, "%s\n", dlerror());
        return 1;
    }
    std::printf("%.9f\n", time.count());
    return 0;
}

double load_elsewhere(const std::string& self, const std::string& path) {
    const std::string command = self + " " + only_load + " " + path;
    std::FILE* const output = popen(command.c_str(), "r");
    double seconds = 0;
    const bool is_read = output != nullptr && std::fscanf(output, "%lf", &seconds) == 1;
    if (output == nullptr || pclose(output) != 0 || !is_read) {
        std::fprintf(stderr, "load: %s could not be loaded\n", path.c_str());
        std::exit(1);
    }
    return seconds;
}

void load_library(benchmark::State& state, const std::string& self, const std::string& ours,
                  const std::string& theirs) {
    qel::vexa::benchmarks::side_by_side(
        state, 1, [&] { return load_elsewhere(self, ours); }, [&] { return load_elsewhere(self, theirs); });
}

}  // namespace

int main(int argument_count, char** arguments) {
    if (argument_count == 3 && std::string(arguments[1]) == only_load) {
        return load(arguments[2]);
    }
    benchmark::Initialize(&argument_count, arguments);
    if (argument_count != 3) {
        std::fputs("usage: load_benchmark LIBRARY SDK_LIBRARY\n", stderr);
        return 2;
    }
    benchmark::RegisterBenchmark("load_library", load_library, std::string(arguments[0]),
                                 std::string(arguments[1]), std::string(arguments[2]))
        ->UseManualTime()
        ->Iterations(201);
    benchmark::RunSpecifiedBenchmarks();
}
