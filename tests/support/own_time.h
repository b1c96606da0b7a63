// Time for code that sleeps with usleep and looks at CLOCK_MONOTONIC_RAW: it passes only while the code
// sleeps. Link with --wrap=usleep and --wrap=clock_gettime, and include in one file of the program.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <ctime>
#include <functional>

namespace test_support {

// While the object lasts, no real time passes for the code. It begins at the end of a second.
class own_time {
public:
    own_time() {
        timespec now{};
        ::clock_gettime(CLOCK_MONOTONIC_RAW, &now);
        microseconds = static_cast<std::uint64_t>(now.tv_sec) * 1'000'000 + 999'999;
        current = this;
    }
    ~own_time() { current = nullptr; }
    own_time(const own_time&) = delete;
    own_time& operator=(const own_time&) = delete;

    std::uint64_t microseconds;
    std::function<void()> in_sleep = [] {};  // called at the end of every sleep

    static inline own_time* current = nullptr;
};

}  // namespace test_support

extern "C" {

int __real_clock_gettime(clockid_t clock, timespec* time);
int __wrap_clock_gettime(clockid_t clock, timespec* time) {
    if (test_support::own_time::current == nullptr || clock != CLOCK_MONOTONIC_RAW) {
        return __real_clock_gettime(clock, time);
    }
    const std::uint64_t now = test_support::own_time::current->microseconds;
    time->tv_sec = static_cast<time_t>(now / 1'000'000);
    time->tv_nsec = static_cast<long>(now % 1'000'000) * 1000;
    return 0;
}

int __real_usleep(useconds_t microseconds);
int __wrap_usleep(useconds_t microseconds) {
    if (test_support::own_time::current == nullptr) {
        return __real_usleep(microseconds);
    }
    test_support::own_time::current->microseconds += microseconds;
    test_support::own_time::current->in_sleep();
    return 0;
}

}  // extern "C"
