// Operating system support on real threads, clocks and signals.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "osu/platform_dummy/vexa_osu_libhooks.h"
#include "osu/platform_dummy/vexa_osu_private.h"
#include "tests/support/failing_calls.h"
#include "tests/support/platform_log.h"

namespace {

using namespace std::chrono_literals;
using test_support::calls;

std::uint32_t affinity_asked;
void* ended_with;
const void* destroyed_condition;

}  // namespace

// The linker leads this program's own calls to __wrap_, and __real_ to the C library.
extern "C" decltype(sched_setaffinity) __real_sched_setaffinity;
extern "C" int __wrap_sched_setaffinity(pid_t process, std::size_t size, const cpu_set_t* cores) {
    EXPECT_TRUE(process == 0 && size == sizeof affinity_asked);
    std::memcpy(&affinity_asked, cores, sizeof affinity_asked);
    return __real_sched_setaffinity(process, size, cores);
}
extern "C" decltype(pthread_cond_destroy) __real_pthread_cond_destroy;
extern "C" int __wrap_pthread_cond_destroy(pthread_cond_t* condition) {
    destroyed_condition = condition;
    return __real_pthread_cond_destroy(condition);
}

namespace {

TEST(osu, startup_failure_is_reported_and_fatal) {
    const auto start = [](int failing, bool exhaust_keys) {
        for (pthread_key_t key; exhaust_keys && pthread_key_create(&key, nullptr) == 0;) {
        }
        calls.failing_mutex_init = failing;
        osup_thread_setname("starting up");
        osup_startup();
    };
    const std::string report =
        "^==>\\[ERROR\\] \\(starting up\\) OSU: In file: osu/platform_dummy/vexa_osu  line: [0-9]+ ";
    const testing::KilledBySignal aborted(SIGABRT);
    EXPECT_EXIT(start(0, true), aborted, report + "osup_startup\nFailed to setup TLS generic key\n");
    constexpr int static_mutexes = 19;  // that clients may ask for by number
    for (int n = 1; n <= static_mutexes; ++n) {
        EXPECT_EXIT(start(n, false), aborted, report + "osup_startup\nFailed to init static mutexes\n");
    }
}

TEST(osu, teardown_hands_over_the_callers_word_and_ends_thread_data) {
    const auto tear_down = [](void* word) {
        osup_thread_callback_set([](void* value) { ended_with = value != nullptr ? value : &ended_with; });
        osup_thread_data_set(word);
        osup_teardown();
        _exit(ended_with == word && osup_thread_data_set(&word) == OSUP_THREAD_DATA_REFUSED ? 0 : 1);
    };
    EXPECT_EXIT(tear_down(&affinity_asked), testing::ExitedWithCode(0), "");
    EXPECT_EXIT(tear_down(nullptr), testing::ExitedWithCode(0), "");
}

TEST(osu, unload_happens_once_and_registration_wants_memory) {
    static osup_unload_callback_function note = [](void* text) {
        std::fputs(static_cast<const char*>(text), stderr);
        osup_register_unload_callback(note, text);  // a second unload would run it
    };
    static char text[] = "once";
    calls.failing_malloc = 1;
    EXPECT_EQ(osup_register_unload_callback(note, text), OSUP_FAILURE);
    const auto unload = [] {
        osup_register_unload_callback(note, text);
        osup_constructor();  // a second load would lose it
        osup_destructor();
        osup_destructor();
        std::exit(0);
    };
    EXPECT_EXIT(unload(), testing::ExitedWithCode(0), "^once$");
}

TEST(osu, deadline_carries_and_is_clamped) {
    constexpr std::uint64_t second = 1'000'000'000;
    const struct {
        timespec now;
        std::uint64_t wait;
        timespec expected;
    } cases[] = {
        {{5, 500'000'000}, 1'499'999'999, {6, 999'999'999}},  {{5, 500'000'000}, 1'500'000'000, {7, 0}},
        {{5, 1}, (0x7fffffff - 4) * second, {0x7fffffff, 1}}, {{0x7fffffff, 999'999'999}, 1, {0x7fffffff, 0}},
        {{5, 0}, UINT64_MAX, {0x7fffffff, 709'551'615}},
    };
    for (const auto& c : cases) {
        const timespec deadline = osup_deadline(c.now, c.wait);
        EXPECT_EQ(deadline.tv_sec, c.expected.tv_sec) << c.wait;
        EXPECT_EQ(deadline.tv_nsec, c.expected.tv_nsec) << c.wait;
    }
}

TEST(osu, sync_object_wakes_every_waiter_also_for_no_reason) {
    osup_sync_object object;
    std::memset(&object, 0xff, sizeof object);
    ASSERT_EQ(osup_sync_object_init(&object), OSUP_SUCCESS);
    EXPECT_NE(destroyed_condition, &object.cond);
    for (const bool set : {true, false}) {
        auto first = std::async(std::launch::async, osup_sync_object_wait, &object);
        auto second = std::async(std::launch::async, osup_sync_object_timedwait, &object, 60'000'000'000);
        EXPECT_EQ(first.wait_for(50ms), std::future_status::timeout);
        EXPECT_EQ(second.wait_for(50ms), std::future_status::timeout);
        do {  // again, since on a busy machine a thread may not have waited yet
            EXPECT_EQ(
                set ? osup_sync_object_set_and_broadcast(&object) : pthread_cond_broadcast(&object.cond), 0);
        } while (first.wait_for(5ms) == std::future_status::timeout ||
                 second.wait_for(5ms) == std::future_status::timeout);
        EXPECT_EQ(first.get() + second.get(), OSUP_SUCCESS);
        EXPECT_EQ(object.state, set ? 1 : 0);
        osup_sync_object_clear(&object);
    }
    calls.failing_mutex_init = 1;
    EXPECT_EQ(osup_sync_object_init(&object), OSUP_FAILURE);
    EXPECT_EQ(destroyed_condition, &object.cond);
}

TEST(osu, signals_neither_end_nor_prolong_a_semaphores_wait) {
    sem_t semaphore;
    ASSERT_EQ(osup_sem_init(&semaphore, 0), OSUP_SUCCESS);
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGALRM, &action, nullptr), 0);
    const itimerval every_5_ms = {{0, 5000}, {0, 5000}};
    ASSERT_EQ(setitimer(ITIMER_REAL, &every_5_ms, nullptr), 0);
    const auto post_later = [&] {
        std::this_thread::sleep_for(100ms);
        osup_sem_post(&semaphore);
    };
    auto posted = std::async(std::launch::async, post_later);
    EXPECT_EQ(osup_sem_wait(&semaphore), OSUP_SEM_WAIT_DONE);
    posted = std::async(std::launch::async, post_later);
    EXPECT_EQ(osup_sem_timedwait(&semaphore, 60'000'000'000), OSUP_SUCCESS);
    EXPECT_EQ(osup_sem_timedwait(&semaphore, 100'000'000), OSUP_FAILURE);
    const itimerval never = {};
    setitimer(ITIMER_REAL, &never, nullptr);
}

TEST(osu, affinity_is_asked_for_in_words_of_32_bits) {
    std::thread([] {
        osup_thread_setname("pinned thread");
        osup_thread_setdeferrability(0);
        EXPECT_EQ(std::popcount(affinity_asked), std::min(osup_get_number_of_cpu_cores(), 32));
        osup_thread_setdeferrability(-1);
        EXPECT_EQ(affinity_asked, 15U);
        const auto core = static_cast<std::uint32_t>(sched_getcpu());
        osup_set_core_id(core);
        EXPECT_EQ(affinity_asked, 1U << core);
        EXPECT_TRUE(test_support::take_log_lines().empty());
        osup_set_core_id(32);
        EXPECT_EQ(affinity_asked, 0U);
        const std::vector<test_support::log_line> lines = test_support::take_log_lines();
        ASSERT_EQ(lines.size(), 1U);
        EXPECT_EQ(lines[0].text, "Unable to set requested CPU core 32 for thread [pinned thread].\n");
    }).join();
}

}  // namespace
