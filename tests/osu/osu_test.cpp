// Operating system support on real threads, clocks, signals and libraries.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <future>
#include <set>
#include <string>
#include <thread>

#include "osu/platform_dummy/vexa_osu_private.h"
#include "osu/vexa_osu.h"
#include "tests/support/fatal_report.h"

namespace {

using namespace std::chrono_literals;
using steady = std::chrono::steady_clock;

// The call of each kind that fails next, counted from 1, and what the calls saw.
int failing_key_create, failing_mutex_init, failing_sem_wait;
int conditions_destroyed;
long pretended_cores;
std::atomic<std::uint32_t> affinity_asked;
std::atomic<std::size_t> affinity_size;

bool fails(int& countdown) {
    return countdown > 0 && --countdown == 0;
}

}  // namespace

// The linker leads this program's own calls to __wrap_, and __real_ to the C library.
extern "C" {

decltype(pthread_key_create) __real_pthread_key_create;
int __wrap_pthread_key_create(pthread_key_t* key, void (*destructor)(void*)) {
    return fails(failing_key_create) ? EAGAIN : __real_pthread_key_create(key, destructor);
}

decltype(pthread_mutex_init) __real_pthread_mutex_init;
int __wrap_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) {
    return fails(failing_mutex_init) ? ENOMEM : __real_pthread_mutex_init(mutex, attributes);
}

decltype(pthread_cond_destroy) __real_pthread_cond_destroy;
int __wrap_pthread_cond_destroy(pthread_cond_t* condition) {
    ++conditions_destroyed;
    return __real_pthread_cond_destroy(condition);
}

decltype(sem_wait) __real_sem_wait;
int __wrap_sem_wait(sem_t* semaphore) {
    if (!fails(failing_sem_wait)) {
        return __real_sem_wait(semaphore);
    }
    errno = EINVAL;
    return -1;
}

decltype(sysconf) __real_sysconf;
long __wrap_sysconf(int name) {
    return pretended_cores != 0 && name == _SC_NPROCESSORS_CONF ? pretended_cores : __real_sysconf(name);
}

decltype(sched_setaffinity) __real_sched_setaffinity;
int __wrap_sched_setaffinity(pid_t process, std::size_t size, const cpu_set_t* cores) {
    affinity_size = size;
    std::uint32_t mask = 0;
    std::memcpy(&mask, cores, sizeof mask);
    affinity_asked = mask;
    return __real_sched_setaffinity(process, size, cores);
}

}  // extern "C"

namespace {

// Static mutexes that could not be taken, or could be taken twice, before the layer was up.
int unsound_before_startup = 0;

__attribute__((constructor(101))) void use_static_mutexes() {
    for (unsigned i = 0; i < OSUP_STATIC_MUTEX_COUNT; ++i) {
        pthread_mutex_t* mutex = osup_mutex_static_get(i);
        const bool sound = osup_mutex_lock(mutex) == 0 && pthread_mutex_trylock(mutex) == EBUSY &&
                           osup_mutex_unlock(mutex) == 0;
        unsound_before_startup += sound ? 0 : 1;
    }
}

TEST(osu, startup_failure_is_reported_and_fatal) {
    const auto start = [](int failing_key, int failing_mutex) {
        failing_key_create = failing_key;
        failing_mutex_init = failing_mutex;
        osup_startup();
        _exit(failing_mutex_init);
    };
    const std::string report =
        "^fatal 2 ERROR OSU In file: osu/platform_dummy/vexa_osu  line: [0-9]+ osup_startup ";
    const testing::KilledBySignal aborted(SIGABRT);
    EXPECT_EXIT(start(1, 0), aborted, report + "Failed to setup TLS generic key\n");
    EXPECT_EXIT(start(0, 1), aborted, report + "Failed to init static mutexes\n");
    EXPECT_EXIT(start(0, 19), aborted, report + "Failed to init static mutexes\n");
    EXPECT_EXIT(start(0, 20), testing::ExitedWithCode(1), "");  // no mutex is the twentieth
    EXPECT_EQ(unsound_before_startup, 0);
}

void* ended_with;

TEST(osu, teardown_hands_over_the_callers_word_and_ends_thread_data) {
    static int word = 0;
    const auto tear_down = [](osup_thread_callback_function callback, void* value, const void* expected) {
        osup_thread_callback_set(callback);
        osup_thread_data_set(value);
        osup_teardown();
        const bool mutexes_remain = osup_mutex_lock(osup_mutex_static_get(18)) == 0;
        _exit(ended_with == expected && osup_thread_data_set(&word) == 0 && mutexes_remain ? 0 : 1);
    };
    const auto note_end = [](void* value) { ended_with = value != nullptr ? value : &ended_with; };
    EXPECT_EXIT(tear_down(note_end, &word, &word), testing::ExitedWithCode(0), "");
    EXPECT_EXIT(tear_down(note_end, nullptr, nullptr), testing::ExitedWithCode(0), "");
    EXPECT_EXIT(tear_down(nullptr, &word, nullptr), testing::ExitedWithCode(0), "");
}

TEST(osu, thread_name_that_cannot_be_read_is_empty) {
    // The kernel refuses memory that it cannot write 16 bytes to.
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    char* pages = static_cast<char*>(
        mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_EQ(mprotect(pages + page, page, PROT_NONE), 0);
    char* buffer = pages + page - 4;
    buffer[0] = '#';
    osup_thread_getname(buffer, 16);
    EXPECT_EQ(buffer[0], '\0');
    munmap(pages, 2 * page);
}

TEST(osu, deadline_carries_and_is_clamped) {
    struct {
        timespec now;
        std::uint64_t wait;
        timespec expected;
    } const cases[] = {
        {{5, 7}, 0, {5, 7}},
        {{5, 500'000'000}, 1'499'999'999, {6, 999'999'999}},
        {{5, 500'000'000}, 1'500'000'000, {7, 0}},
        {{5, 999'999'999}, 2'999'999'999, {8, 999'999'998}},
        {{5, 1}, (0x7fffffffULL - 5) * 1'000'000'000, {0x7fffffff, 1}},
        {{5, 1}, (0x7fffffffULL - 4) * 1'000'000'000, {0x7fffffff, 1}},
        {{0x7fffffff, 999'999'999}, 1, {0x7fffffff, 0}},
        {{5, 0}, 1ULL << 63, {0x7fffffff, 854'775'808}},
        {{5, 0}, UINT64_MAX, {0x7fffffff, 709'551'615}},
    };
    for (const auto& c : cases) {
        const timespec deadline = osup_deadline(c.now, c.wait);
        EXPECT_EQ(deadline.tv_sec, c.expected.tv_sec) << c.wait;
        EXPECT_EQ(deadline.tv_nsec, c.expected.tv_nsec) << c.wait;
    }
}

// A timed wait on either kind of object.
class timed_wait : public testing::TestWithParam<bool> {
protected:
    timed_wait() { EXPECT_EQ(osup_sem_init(&semaphore, 0) + osup_sync_object_init(&object), 0); }
    ~timed_wait() override { EXPECT_EQ(osup_sem_term(&semaphore) + osup_sync_object_term(&object), 0); }
    int wait(std::uint64_t nanoseconds) {
        return GetParam() ? osup_sem_timedwait(&semaphore, nanoseconds)
                          : osup_sync_object_timedwait(&object, nanoseconds);
    }
    int wake() {
        return GetParam() ? osup_sem_post(&semaphore) : osup_sync_object_set_and_broadcast(&object);
    }

    sem_t semaphore;
    osup_sync_object object;
};
INSTANTIATE_TEST_SUITE_P(semaphore_and_sync_object, timed_wait, testing::Bool());

TEST_P(timed_wait, ends_at_its_time_and_no_sooner) {
    for (const auto duration : {0ns, 1ns, 50'000'000ns, 999'999'999ns}) {  // the last one carries
        const auto begin = steady::now();
        EXPECT_EQ(wait(static_cast<std::uint64_t>(duration.count())), 1);
        const auto lasted = steady::now() - begin;
        EXPECT_GE(lasted, duration - 1ms);
        EXPECT_LT(lasted, duration + 5s);
    }
}

TEST_P(timed_wait, huge_time_out_waits_until_woken) {
    for (const std::uint64_t nanoseconds : {std::uint64_t{1} << 63, UINT64_MAX}) {
        auto waiter = std::async(std::launch::async, [&] { return wait(nanoseconds); });
        EXPECT_EQ(waiter.wait_for(50ms), std::future_status::timeout);
        EXPECT_EQ(wake(), 0);
        EXPECT_EQ(waiter.get(), 0);
        osup_sync_object_clear(&object);
    }
    wake();
    EXPECT_EQ(wait(0), 0);
}

std::atomic<int> signals_taken;

TEST(semaphore, signals_neither_end_nor_prolong_a_wait) {
    struct sigaction action = {};
    action.sa_handler = [](int) { ++signals_taken; };
    ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
    sem_t semaphore;
    ASSERT_EQ(osup_sem_init(&semaphore, 0), 0);
    // Signals a waiting thread every 5 ms until it is through, or for a while.
    const auto disturb = [&](auto wait, std::chrono::milliseconds time) {
        signals_taken = 0;
        std::atomic<int> result = -1;
        std::thread waiter([&] { result = wait(); });
        for (const auto end = steady::now() + time; result == -1 && steady::now() < end;) {
            pthread_kill(waiter.native_handle(), SIGUSR1);
            std::this_thread::sleep_for(5ms);
        }
        const int disturbed_result = result;
        osup_sem_post(&semaphore);
        waiter.join();
        EXPECT_GT(signals_taken, 1);
        return std::pair(disturbed_result, result.load());
    };
    EXPECT_EQ(disturb([&] { return osup_sem_wait(&semaphore); }, 100ms), std::pair(-1, 1));
    EXPECT_EQ(disturb([&] { return osup_sem_timedwait(&semaphore, 60'000'000'000); }, 100ms),
              std::pair(-1, 0));
    EXPECT_EQ(disturb([&] { return osup_sem_timedwait(&semaphore, 100'000'000); }, 10s), std::pair(1, 1));

    EXPECT_EQ(osup_sem_trywait(&semaphore), 0);
    failing_sem_wait = 1;
    EXPECT_EQ(osup_sem_wait(&semaphore), EINVAL);
    EXPECT_EQ(osup_sem_term(&semaphore), 0);
}

TEST(sync_object, wakes_every_waiter_and_fails_cleanly) {
    osup_sync_object object;
    ASSERT_EQ(osup_sync_object_init(&object), 0);
    EXPECT_EQ(object.state, 0);
    // Set, or woken for no reason: both end the one wait.
    for (const bool set : {true, false}) {
        auto first = std::async(std::launch::async, [&] { return osup_sync_object_wait(&object); });
        auto second =
            std::async(std::launch::async, [&] { return osup_sync_object_timedwait(&object, UINT64_MAX); });
        EXPECT_EQ(first.wait_for(50ms), std::future_status::timeout);
        EXPECT_EQ(second.wait_for(50ms), std::future_status::timeout);
        do {  // on a busy machine a thread may not wait yet
            set ? osup_sync_object_set_and_broadcast(&object) : pthread_cond_broadcast(&object.cond);
        } while (first.wait_for(5ms) != std::future_status::ready ||
                 second.wait_for(5ms) != std::future_status::ready);
        EXPECT_EQ(first.get(), 0);
        EXPECT_EQ(second.get(), 0);
        EXPECT_EQ(object.state, set ? 1 : 0);
        osup_sync_object_clear(&object);
    }

    object.state = 1;
    failing_mutex_init = 1;
    conditions_destroyed = 0;
    EXPECT_EQ(osup_sync_object_init(&object), 1);
    EXPECT_EQ(object.state, 0);
    EXPECT_EQ(conditions_destroyed, 1);
}

std::set<int> allowed_cores() {
    cpu_set_t cores;
    EXPECT_EQ(sched_getaffinity(0, sizeof cores, &cores), 0);
    std::set<int> result;
    for (int core = 0; core < CPU_SETSIZE; ++core) {
        if (CPU_ISSET(core, &cores)) {
            result.insert(core);
        }
    }
    return result;
}

TEST(processors, affinity_is_asked_for_in_words_of_32_bits) {
    EXPECT_GT(osup_get_number_of_cpu_cores(), *allowed_cores().rbegin());
    std::thread([] {
        const std::set<int> all = allowed_cores();
        const auto first = static_cast<std::uint32_t>(*all.begin());
        osup_thread_setname("pinned thread");
        osup_set_core_id(first);
        EXPECT_EQ(affinity_asked, 1U << first);
        EXPECT_EQ(affinity_size, 4U);
        EXPECT_EQ(allowed_cores(), std::set{*all.begin()});
        EXPECT_EQ(qel::vexa::tests::last_error_text(), "");
        for (const std::uint32_t core : {40U, 32U + first, UINT32_MAX}) {
            osup_set_core_id(core);
            EXPECT_EQ(affinity_asked, 0U);
            EXPECT_EQ(
                qel::vexa::tests::last_error_text(),
                "Unable to set requested CPU core " + std::to_string(core) + " for thread [pinned thread].");
        }
        EXPECT_EQ(allowed_cores(), std::set{*all.begin()});

        const std::pair<long, std::uint32_t> masks[] = {{1, 0x1},         {2, 0x3},         {31, 0x7fffffff},
                                                        {32, 0xffffffff}, {64, 0xffffffff}, {-1, 0}};
        for (const auto& [cores, mask] : masks) {
            pretended_cores = cores;
            osup_thread_setdeferrability(0);
            EXPECT_EQ(affinity_asked, mask);
            osup_thread_setdeferrability(-1);
            EXPECT_EQ(affinity_asked, 15U);
        }
        pretended_cores = 0;
        osup_thread_setdeferrability(0);
        EXPECT_EQ(allowed_cores(), all);
    }).join();
}

}  // namespace
