// Surroundings that do not behave: nodes, signals, limits and forks.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <optional>

#include "cdbg/env.h"
#include "tests/robustness/session.h"
#include "tests/support/apart.h"

namespace {

using namespace test_support;  // NOLINT(google-build-using-namespace)
using namespace robustness;    // NOLINT(google-build-using-namespace)
using qel::vexa::virtual_gpu::gpu_description;
using qel::vexa::virtual_gpu::open_counts;

// A machine with one GPU that loses no sample, and nothing left of it at the end.
class Hostile : public testing::Test {
protected:
    Hostile() {
        machine::reset();
        machine::add_node(0, {.loses_samples = false});
        cdbg_env_get("", nullptr, 0);  // starts diagnostics, which stays
        take_log_lines();
    }
    ~Hostile() override {
        take_log_lines();
        machine::reset();
        EXPECT_EQ(machine::open_now(), open_counts{});
        EXPECT_TRUE(nothing_left(before_));
    }

    static bool comes_to(std::size_t samples) {
        return eventually([samples] { return timestamps().size() >= samples; });
    }

    // All samples of a machine that loses none are a period apart.
    static void expect_every_sample() {
        const std::vector<std::uint64_t> times = timestamps();
        for (std::size_t i = 1; i < times.size(); ++i) {
            ASSERT_EQ(times[i] - times[i - 1], 1'000'000U);
        }
    }

private:
    const held_resources before_ = held_resources::now();
};

// However its node behaves, a session ends at once when it is told to, and the next one is like any other.
TEST_F(Hostile, NodesThatMisbehave) {
    const struct {
        const char* what;
        void (*arrange)();
    } cases[] = {
        {"stops signalling", [] { machine::set_signalling(false); }},
        {"signals without a sample", [] { machine::signal_without_sample(); }},
        {"hangs up", [] { machine::hang_up_readers(); }},
        {"vanishes", [] { machine::remove_node(0); }},
    };
    for (const auto& [what, arrange] : cases) {
        SCOPED_TRACE(what);
        machine::reset();
        machine::add_node(0, {.loses_samples = false});
        std::optional<session> run(std::in_place);
        EXPECT_TRUE(comes_to(3));
        arrange();
        ::usleep(20'000);
        const auto begin = std::chrono::steady_clock::now();
        run.reset();
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
        expect_every_sample();

        machine::reset();
        machine::add_node(0, {});
        const session next;
        EXPECT_TRUE(comes_to(3));
    }
}

// The driver tells detection of 260 slices, and gives samples for 4: the rows would read behind the ring.
TEST_F(Hostile, SamplesTooShortForTheRows) {
    gpu_description gpu{.loses_samples = false};
    std::vector<std::byte> blob = property_blob(gpu);
    for (const unsigned byte : {15U << 2 | 2, 0U, 0U, 0U, 0x04U, 0x01U, 0U, 0U}) {
        blob.push_back(static_cast<std::byte>(byte));
    }
    gpu.raw_properties = blob;
    machine::add_node(0, gpu);
    std::vector<log_line> lines;
    {
        const session run;
        EXPECT_TRUE(eventually([&lines] { return !(lines = take_log_lines()).empty(); }));
        ::usleep(20'000);
    }
    EXPECT_EQ(outcome_of(lines, !timestamps().empty()), 'E');
}

std::atomic<int> signal_count = 0;  // of several threads
std::atomic<bool> storm_goes_on = true;

void ask_for_signal() {
    const itimerval soon{.it_interval = {}, .it_value = {0, 200}};
    ::setitimer(ITIMER_REAL, &soon, nullptr);
}

// A signal 200 microseconds behind each, of which none lets an interrupted call go on. In even time, a
// machine that is slower than the signals would do nothing else.
TEST_F(Hostile, SignalsThatInterruptEveryCall) {
    struct sigaction action {};
    action.sa_handler = [](int) {
        ++signal_count;
        if (storm_goes_on) {
            ask_for_signal();
        }
    };
    struct sigaction previous {};
    ASSERT_EQ(::sigaction(SIGALRM, &action, &previous), 0);
    ask_for_signal();
    for (int i = 0; i < 10; ++i) {
        machine::clear_requests();
        {
            // The signals go to the session's thread while this one takes none.
            const session run;
            sigset_t alarm;
            ::sigemptyset(&alarm);
            ::sigaddset(&alarm, SIGALRM);
            ::pthread_sigmask(i % 2 == 0 ? SIG_BLOCK : SIG_UNBLOCK, &alarm, nullptr);
            EXPECT_TRUE(comes_to(50));
            ::pthread_sigmask(SIG_UNBLOCK, &alarm, nullptr);
        }
        expect_every_sample();
        EXPECT_EQ(outcome_of(take_log_lines(), true), 'S');
    }
    storm_goes_on = false;
    const itimerval calm{};
    ::setitimer(ITIMER_REAL, &calm, nullptr);
    ::sigaction(SIGALRM, &previous, nullptr);
    EXPECT_GT(signal_count, 100);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// With more and more address space. What can't be told in another way ends the process, in words.
TEST_F(Hostile, MemoryLimit) {
    bool has_come_to_its_end = false;
    const auto limited_session = [](rlim_t room) {
        std::size_t pages = 0;
        std::ifstream("/proc/self/statm") >> pages;
        rlimit limit{};
        ::getrlimit(RLIMIT_AS, &limit);
        limit.rlim_cur = pages * static_cast<rlim_t>(::sysconf(_SC_PAGESIZE)) + room * (1U << 19);
        ::setrlimit(RLIMIT_AS, &limit);
        {
            const session run;
            ::usleep(30'000);
        }
        limit.rlim_cur = limit.rlim_max;
        ::setrlimit(RLIMIT_AS, &limit);
        const char outcome = outcome_of(take_log_lines(), !timestamps().empty());
        std::fputs("came to its end", stderr);
        ::_exit(outcome != '?' && machine::open_now() == open_counts{} ? 0 : 1);
    };
    const auto is_defined = [&has_come_to_its_end](int status) {
        has_come_to_its_end = has_come_to_its_end || status == 0;
        return status == 0 || (WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT);
    };
    for (rlim_t room = 0; room <= 32; ++room) {
        EXPECT_EXIT(limited_session(room), is_defined, "came to its end|thread constructor failed|bad_alloc")
            << room;
    }
    EXPECT_TRUE(has_come_to_its_end);
}
#endif

// The child loses the node at once, and can have sessions of its own. The parent goes on.
TEST_F(Hostile, HostThatForks) {
    const session run;
    EXPECT_TRUE(comes_to(3));
    for (int i = 0; i < 10; ++i) {
        const std::string report = report_from_child([] {
            const open_counts open = machine::open_now();
            EXPECT_EQ(open.nodes, 0U);
#if !defined(__SANITIZE_THREAD__) && !defined(__arm__)  // it and the emulator let no thread be started here
            take_log_lines();
            machine::clear_requests();
            {
                const session own;
                EXPECT_TRUE(comes_to(3));
            }
            EXPECT_EQ(outcome_of(take_log_lines(), true), 'S');
            EXPECT_EQ(machine::open_now(), open);
#endif
            return "done";
        });
        EXPECT_EQ(report, "done");
        EXPECT_EQ(machine::open_now().nodes, 1U);
        EXPECT_TRUE(comes_to(timestamps().size() + 3));
    }
    expect_every_sample();
}

}  // namespace
