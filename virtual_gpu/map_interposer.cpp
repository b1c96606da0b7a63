// Stands in for the calls that map memory, as interposer.cpp does for the others. They run before a sanitizer
// is ready for the code that it watches, so this file is built without any.

#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>

#include "virtual_gpu/calls.h"
#include "virtual_gpu/interposer.h"
#include "virtual_gpu/next_call.h"
#include "virtual_gpu/stand_in.h"

namespace {

using namespace qel::vexa::virtual_gpu;

// With the offset in 64 bits on every processor.
constinit next_call<void*(void*, std::size_t, int, int, int, std::int64_t)> next_mmap("mmap64");

// Programs map memory before the next definition can be looked up, and while it is.
void* system_map(void* address, std::size_t length, int protection, int flags, int descriptor,
                 std::int64_t offset) {
#ifdef __LP64__
    const long result = ::syscall(SYS_mmap, address, length, protection, flags, descriptor, offset);
#else
    constexpr std::int64_t unit = 4096;
    if (offset % unit != 0) {
        errno = EINVAL;
        return MAP_FAILED;
    }
    const long result = ::syscall(SYS_mmap2, address, length, protection, flags, descriptor,
                                  static_cast<unsigned long>(offset / unit));
#endif
    return reinterpret_cast<void*>(result);  // NOLINT(performance-no-int-to-ptr): the kernel's answer
}

constinit std::atomic<bool> looks_up_mmap{false};

void* map(void* address, std::size_t length, int protection, int flags, int descriptor, std::int64_t offset) {
    if (descriptor >= 0 && (flags & MAP_ANONYMOUS) == 0) {
        if (const auto result = machine::map({address, length, protection, flags, descriptor, offset})) {
            errno = result->error == 0 ? errno : result->error;
            return result->address;
        }
    }
    return real_map(address, length, protection, flags, descriptor, offset);
}

}  // namespace

namespace qel::vexa::virtual_gpu {

void* real_map(void* address, std::size_t length, int protection, int flags, int descriptor,
               std::int64_t offset) {
    auto next = next_mmap.peek();
    if (next == nullptr && !looks_up_mmap.exchange(true)) {
        next = next_mmap.get();
        looks_up_mmap = false;
    }
    return (next == nullptr ? system_map : next)(address, length, protection, flags, descriptor, offset);
}

}  // namespace qel::vexa::virtual_gpu

extern "C" {

void* stand_in_mmap(void* address, std::size_t length, int protection, int flags, int descriptor, long offset)
    STAND_IN_FOR("mmap");
void* stand_in_mmap64(void* address, std::size_t length, int protection, int flags, int descriptor,
                      std::int64_t offset) STAND_IN_FOR("mmap64");

// A call without the 64 has an offset of the processor's width.
void* stand_in_mmap(void* address, std::size_t length, int protection, int flags, int descriptor,
                    long offset) {
    return map(address, length, protection, flags, descriptor, offset);
}

void* stand_in_mmap64(void* address, std::size_t length, int protection, int flags, int descriptor,
                      std::int64_t offset) {
    return map(address, length, protection, flags, descriptor, offset);
}

}  // extern "C"
