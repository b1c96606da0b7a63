// Stands in for the C library's calls on files. What concerns the nodes goes to the machine, everything else
// to the next definition: the C library's, or that of a sanitizer or another preloaded library before it.

#include "virtual_gpu/interposer.h"

#include <poll.h>
#include <sys/types.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <optional>
#include <string_view>

#include "virtual_gpu/calls.h"
#include "virtual_gpu/machine.h"
#include "virtual_gpu/next_call.h"
#include "virtual_gpu/stand_in.h"

namespace {

using namespace qel::vexa::virtual_gpu;

constinit next_call<int(const char*, int, ...)> next_open("open");
constinit next_call<int(const char*, int, ...)> next_open64("open64");
constinit next_call<int(int, const char*, int, ...)> next_openat("openat");
constinit next_call<int(int, const char*, int, ...)> next_openat64("openat64");
constinit next_call<int(const char*, int)> next_open_2("__open_2");
constinit next_call<int(const char*, int)> next_open64_2("__open64_2");
constinit next_call<int(int)> next_close("close");
constinit next_call<int(int, unsigned long, ...)> next_ioctl("ioctl");
constinit next_call<int(pollfd*, nfds_t, int)> next_poll("poll");

int to_result(int answer) {
    if (answer >= 0) {
        return answer;
    }
    errno = -answer;
    return -1;
}

// The instance of a node's path, or nothing for any other path.
std::optional<unsigned> instance_of(const char* path) {
    if (path == nullptr) {
        return std::nullopt;
    }
    std::string_view number = path;
    if (!number.starts_with(node_prefix)) {
        return std::nullopt;
    }
    number.remove_prefix(node_prefix.size());
    unsigned instance = 0;
    const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), instance);
    const bool is_plain = number.size() == 1 || !number.starts_with('0');
    if (error != std::errc() || end != number.data() + number.size() || !is_plain) {
        return std::nullopt;
    }
    return instance;
}

// The result of opening a node, or nothing for any other path.
std::optional<int> open_if_node(const char* path, int flags) {
    const std::optional<unsigned> instance = instance_of(path);
    return instance ? std::optional(to_result(machine::open_node(*instance, flags))) : std::nullopt;
}

// The calls that ask about a path. `call` makes the C library's call of the kind.
template <typename Call>
int stat_path(const char* path, Call call) {
    const std::optional<unsigned> instance = instance_of(path);
    return instance ? to_result(machine::stat_node(*instance, call)) : call(path);
}

template <typename Next>
int stat_descriptor(Next& next, int descriptor, void* result) {
    const std::optional<int> failure = machine::fail_fstat(descriptor);
    return failure ? to_result(*failure) : next(descriptor, result);
}

}  // namespace

namespace qel::vexa::virtual_gpu {

int real_open(const char* path, int flags) {
    return next_open64(path, flags, 0U);
}

int real_close(int descriptor) {
    return next_close(descriptor);
}

}  // namespace qel::vexa::virtual_gpu

// Where the C library takes variable arguments, a stand-in has a plain last one: callers pass both alike on
// the processors that this is for. When a caller leaves it out, what is passed on is as arbitrary, and as
// unused, as before.
extern "C" {

int stand_in_open(const char* path, int flags, mode_t mode) STAND_IN_FOR("open");
int stand_in_open64(const char* path, int flags, mode_t mode) STAND_IN_FOR("open64");
int stand_in_openat(int folder, const char* path, int flags, mode_t mode) STAND_IN_FOR("openat");
int stand_in_openat64(int folder, const char* path, int flags, mode_t mode) STAND_IN_FOR("openat64");
// What the open calls become in programs that are built with checks for buffers.
int stand_in_open_2(const char* path, int flags) STAND_IN_FOR("__open_2");
int stand_in_open64_2(const char* path, int flags) STAND_IN_FOR("__open64_2");
int stand_in_close(int descriptor) STAND_IN_FOR("close");
int stand_in_ioctl(int descriptor, unsigned long request, void* argument) STAND_IN_FOR("ioctl");
#ifndef __LP64__
// What ioctl becomes in 32-bit programs with a 64-bit time.
int stand_in_ioctl_time64(int descriptor, unsigned long request, void* argument)
    STAND_IN_FOR("__ioctl_time64");
#endif
int stand_in_poll(pollfd* descriptors, nfds_t count, int timeout) STAND_IN_FOR("poll");

int stand_in_open(const char* path, int flags, mode_t mode) {
    const std::optional<int> node = open_if_node(path, flags);
    return node ? *node : next_open(path, flags, mode);
}

int stand_in_open64(const char* path, int flags, mode_t mode) {
    const std::optional<int> node = open_if_node(path, flags);
    return node ? *node : next_open64(path, flags, mode);
}

int stand_in_openat(int folder, const char* path, int flags, mode_t mode) {
    const std::optional<int> node = open_if_node(path, flags);
    return node ? *node : next_openat(folder, path, flags, mode);
}

int stand_in_openat64(int folder, const char* path, int flags, mode_t mode) {
    const std::optional<int> node = open_if_node(path, flags);
    return node ? *node : next_openat64(folder, path, flags, mode);
}

int stand_in_open_2(const char* path, int flags) {
    const std::optional<int> node = open_if_node(path, flags);
    return node ? *node : next_open_2(path, flags);
}

int stand_in_open64_2(const char* path, int flags) {
    const std::optional<int> node = open_if_node(path, flags);
    return node ? *node : next_open64_2(path, flags);
}

int stand_in_close(int descriptor) {
    machine::forget(descriptor);
    return next_close(descriptor);
}

int stand_in_ioctl(int descriptor, unsigned long request, void* argument) {
    // The kernel takes the request's number as 32 bits; some callers sign-extend it.
    const std::optional<int> answer =
        machine::answer(descriptor, static_cast<std::uint32_t>(request), argument);
    return answer ? to_result(*answer) : next_ioctl(descriptor, request, argument);
}

#ifndef __LP64__
int stand_in_ioctl_time64(int descriptor, unsigned long request, void* argument) {
    return stand_in_ioctl(descriptor, request, argument);
}
#endif

int stand_in_poll(pollfd* descriptors, nfds_t count, int timeout) {
    const std::optional<int> failure = machine::fail_poll(descriptors, count, timeout);
    return failure ? to_result(*failure) : next_poll(descriptors, count, timeout);
}

// The calls that ask about files, by the width of what they tell: plain, with 64-bit sizes, and on 32-bit
// processors with 64-bit times too. The answers differ, what is asked doesn't.
#define STAND_INS_FOR_STATS(suffix, stat_name, lstat_name, fstat_name, fstatat_name)                        \
    static constinit next_call<int(const char*, void*)> next_stat##suffix(stat_name);                       \
    static constinit next_call<int(const char*, void*)> next_lstat##suffix(lstat_name);                     \
    static constinit next_call<int(int, void*)> next_fstat##suffix(fstat_name);                             \
    static constinit next_call<int(int, const char*, void*, int)> next_fstatat##suffix(fstatat_name);       \
    int stand_in_stat##suffix(const char* path, void* result) STAND_IN_FOR(stat_name);                      \
    int stand_in_lstat##suffix(const char* path, void* result) STAND_IN_FOR(lstat_name);                    \
    int stand_in_fstat##suffix(int descriptor, void* result) STAND_IN_FOR(fstat_name);                      \
    int stand_in_fstatat##suffix(int folder, const char* path, void* result, int flags)                     \
        STAND_IN_FOR(fstatat_name);                                                                         \
    int stand_in_stat##suffix(const char* path, void* result) {                                             \
        return stat_path(path, [=](const char* actual) { return next_stat##suffix(actual, result); });      \
    }                                                                                                       \
    int stand_in_lstat##suffix(const char* path, void* result) {                                            \
        return stat_path(path, [=](const char* actual) { return next_lstat##suffix(actual, result); });     \
    }                                                                                                       \
    int stand_in_fstat##suffix(int descriptor, void* result) {                                              \
        return stat_descriptor(next_fstat##suffix, descriptor, result);                                     \
    }                                                                                                       \
    int stand_in_fstatat##suffix(int folder, const char* path, void* result, int flags) {                   \
        return stat_path(                                                                                   \
            path, [=](const char* actual) { return next_fstatat##suffix(folder, actual, result, flags); }); \
    }

STAND_INS_FOR_STATS(_plain, "stat", "lstat", "fstat", "fstatat")
STAND_INS_FOR_STATS(64, "stat64", "lstat64", "fstat64", "fstatat64")
#ifndef __LP64__
STAND_INS_FOR_STATS(64_time64, "__stat64_time64", "__lstat64_time64", "__fstat64_time64",
                    "__fstatat64_time64")
#endif

constinit next_call<int(int, const char*, int, unsigned, void*)> next_statx("statx");
int stand_in_statx(int folder, const char* path, int flags, unsigned mask, void* result)
    STAND_IN_FOR("statx");
int stand_in_statx(int folder, const char* path, int flags, unsigned mask, void* result) {
    return stat_path(path,
                     [=](const char* actual) { return next_statx(folder, actual, flags, mask, result); });
}

}  // extern "C"
