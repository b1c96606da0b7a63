// The samples' clock.
#pragma once

#include <cstdint>
#include <ctime>

namespace qel::vexa::virtual_gpu {

inline constexpr std::uint64_t nanoseconds_per_second = 1'000'000'000;

// CLOCK_MONOTONIC_RAW in nanoseconds.
inline std::uint64_t raw_clock() {
    timespec time{};
    ::clock_gettime(CLOCK_MONOTONIC_RAW, &time);
    return static_cast<std::uint64_t>(time.tv_sec) * nanoseconds_per_second +
           static_cast<std::uint64_t>(time.tv_nsec);
}

}  // namespace qel::vexa::virtual_gpu
