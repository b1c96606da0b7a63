// Sessions that start and stop at random, through the real tracing service, while other threads use the rest
// of the library: stress [SECONDS] [SEED]. The exit status is 0 only if every session could be recorded and
// nothing is left behind.
#include <gtest/gtest.h>
#ifdef __SANITIZE_THREAD__
#include <sanitizer/common_interface_defs.h>
#endif
#include <fcntl.h>
#include <stdlib.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <thread>

#include "cdbg/env.h"
#include "counterfeed/src/start.h"
#include "osu/vexa_osu.h"
#include "tests/support/resources.h"
#include "tests/support/tracing_service.h"
#include "virtual_gpu/machine.h"
#include "workstation/report/trace_file.h"

namespace {

using namespace qel::vexa;  // NOLINT(google-build-using-namespace)
using test_support::eventually;
using test_support::held_resources;
namespace machine = virtual_gpu::machine;

class generator {
public:
    explicit generator(unsigned seed) : random_(seed) {}
    unsigned below(unsigned limit) { return static_cast<unsigned>(random_() % limit); }

private:
    std::mt19937 random_;
};

std::string random_config(generator& random) {
    std::vector<std::uint32_t> ids(random.below(60));
    for (std::uint32_t& id : ids) {
        id = random.below(2) == 0 ? random.below(256) : 65536 + random.below(120);
    }
    return test_support::session_config(ids, 1 + random.below(400),
                                        "counter_period_ns: " + std::to_string(random.below(20'000'000)));
}

struct recording {
    std::string file;
    std::unique_ptr<test_support::process> consumer;
};

// Clients of the library's other operations.
void use_the_rest(const std::atomic<bool>& is_over) {
    while (!is_over) {
        char value[16];
        cdbg_env_get("VEXA_INSTANCE", value, sizeof value);
        char name[OSUP_THREAD_NAME_SIZE];
        osup_thread_getname(name, sizeof name);
        osup_mutex_lock(osup_mutex_static_get(18));
        osup_mutex_unlock(osup_mutex_static_get(18));
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

int run(std::chrono::seconds duration, unsigned seed) {
    generator random(seed);
    const test_support::tracing_service service;
    ::setenv("PERFETTO_PRODUCER_SOCK_NAME", service.folder.file("producer").c_str(), 1);
    machine::add_node(0, {});
    std::thread(start).detach();  // it parks
    if (!eventually([&] { return service.query().find("gpu.counters") != std::string::npos; })) {
        return EXIT_FAILURE;
    }
    generator first(0);
    service.record(random_config(first));  // what the SDK shares with the service stays
    const held_resources before = held_resources::now();

    std::atomic<bool> is_over = false;
    std::thread others[2];
    for (std::thread& other : others) {
        other = std::thread([&is_over] { use_the_rest(is_over); });
    }
    std::vector<recording> running;
    unsigned sessions = 0, stillborn = 0, samples = 0, unreadable = 0;
    const auto end_one = [&](std::size_t i, bool early) {
        if (early) {
            ::kill(running[i].consumer->id(), SIGTERM);
        }
        running[i].consumer->wait();
        const std::string trace = test_support::read_file(running[i].file);
        const auto sequences = report::read_counters(trace);
        (early && trace.empty() ? stillborn : unreadable) += sequences ? 0 : 1;
        for (const auto& [number, sequence] :
             sequences.value_or(std::map<std::uint32_t, report::counter_sequence>())) {
            samples += static_cast<unsigned>(sequence.samples.size());
        }
        running.erase(running.begin() + static_cast<std::ptrdiff_t>(i));
    };
    const auto deadline = std::chrono::steady_clock::now() + duration;
    while (std::chrono::steady_clock::now() < deadline) {
        if (running.size() < 4 && random.below(3) != 0) {
            const std::string file = service.folder.file(std::to_string(sessions++));
            running.push_back({file, service.start_recording(random_config(random), file)});
        } else if (!running.empty()) {
            end_one(random.below(static_cast<unsigned>(running.size())), random.below(2) == 0);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(random.below(60)));
        machine::clear_requests();  // which would be all of them
    }
    while (!running.empty()) {
        end_one(0, false);
    }
    is_over = true;
    for (std::thread& other : others) {
        other.join();
    }
    const bool is_clean = eventually([&] {
        return machine::open_now() == virtual_gpu::open_counts{} &&
               held_resources::now().nothing_beyond(before);
    });
    if (!is_clean) {
        std::printf("%s beyond %s\n", testing::PrintToString(held_resources::now()).c_str(),
                    testing::PrintToString(before).c_str());
    }
    std::printf(
        "%u sessions with %u samples; %u were stopped before they began; %u traces could not be read; %s\n",
        sessions, samples, stillborn, unreadable,
        is_clean ? "nothing was left behind" : "something was left behind");
    return unreadable == 0 && samples > 0 && is_clean ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

int main(int count, char** arguments) {
    constexpr int default_seconds = 5;
    const int seconds = count > 1 ? std::atoi(arguments[1]) : default_seconds;
    const unsigned seed = count > 2 ? static_cast<unsigned>(std::atoi(arguments[2])) : std::random_device()();
    std::printf("stress for %d s with the seed %u\n", seconds, seed);
    std::fflush(stdout);
#ifdef __SANITIZE_THREAD__
    // Reads the symbols now. Later, in the middle of a race that is to be suppressed, the sanitizer would see
    // its own calls for files in the virtual GPU and not that they hold the lock, and would wait for itself.
    // The first call of each kind looks the real one up, which it doesn't bear there either.
    ::close(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    char symbol[64];
    __sanitizer_symbolize_pc(__builtin_return_address(0), "%f", symbol, sizeof symbol);
#endif
    // The library's own thread is still parked: no static object must go away under it.
    const int result = run(std::chrono::seconds(seconds), seed);
    std::fflush(stdout);
    ::_Exit(result);
}
