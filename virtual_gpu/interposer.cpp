// Stands in for the C library's calls on files. What concerns the nodes goes to the machine, everything else
// to the next definition: the C library's, or that of a sanitizer or another preloaded library before it.

#include "virtual_gpu/interposer.h"

#include <dlfcn.h>
#include <sys/types.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <optional>
#include <string_view>

#include "virtual_gpu/machine.h"

namespace {

using namespace qel::vexa::virtual_gpu;

// A call of the C library, looked up on first use: a stand-in can run before any initialiser of this file.
template <typename Function>
class next_call {
public:
    explicit constexpr next_call(const char* name) : name_(name) {}

    template <typename... Arguments>
    int operator()(Arguments... arguments) {
        Function* function = address_.load(std::memory_order_relaxed);
        if (function == nullptr) {
            function = reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name_));
            if (function == nullptr) {
                errno = ENOSYS;
                return -1;
            }
            address_.store(function, std::memory_order_relaxed);
        }
        return function(arguments...);
    }

private:
    const char* name_;
    std::atomic<Function*> address_{nullptr};
};

constinit next_call<int(const char*, int, ...)> next_open("open");
constinit next_call<int(const char*, int, ...)> next_open64("open64");
constinit next_call<int(int, const char*, int, ...)> next_openat("openat");
constinit next_call<int(int, const char*, int, ...)> next_openat64("openat64");
constinit next_call<int(const char*, int)> next_open_2("__open_2");
constinit next_call<int(const char*, int)> next_open64_2("__open64_2");
constinit next_call<int(int)> next_close("close");
constinit next_call<int(int, unsigned long, ...)> next_ioctl("ioctl");

int to_result(int answer) {
    if (answer >= 0) {
        return answer;
    }
    errno = -answer;
    return -1;
}

// The result of opening a node, or nothing for any other path.
std::optional<int> open_if_node(const char* path, int flags) {
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
    return to_result(machine::open_node(instance, flags));
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

// The headers declare these calls as well, and in some builds redirect one to another's symbol or define them
// inline. So the stand-ins have names of their own here, and only their symbols are the C library's.
//
// Where the C library takes variable arguments, a stand-in has a plain last one: callers pass both alike on
// the processors that this is for. When a caller leaves it out, what is passed on is as arbitrary, and as
// unused, as before.
extern "C" {

#define STAND_IN_FOR(symbol) __asm__(symbol) __attribute__((visibility("default"), used))

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

#undef STAND_IN_FOR

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

}  // extern "C"
