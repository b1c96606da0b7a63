// The linker leads the program's own calls to __wrap_, and __real_ to where they went.
#include "tests/support/failing_calls.h"

#include <pthread.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <new>
#include <utility>

namespace test_support {

constinit call_control calls;

}  // namespace test_support

using test_support::calls;

namespace {

bool fails(int* countdown) {
    return *countdown > 0 && --*countdown == 0;
}

// The mutexes that are counted. A C++ library that is linked in, as on Android, destroys some by a call that
// none was made by.
std::array<std::atomic<pthread_mutex_t*>, 128> counted_mutexes;

bool replace_counted(pthread_mutex_t* before, pthread_mutex_t* after) {
    return std::any_of(counted_mutexes.begin(), counted_mutexes.end(),
                       [&](std::atomic<pthread_mutex_t*>& slot) {
                           pthread_mutex_t* expected = before;
                           return slot.compare_exchange_strong(expected, after);
                       });
}

}  // namespace

extern "C" {

decltype(malloc) __real_malloc;
void* __wrap_malloc(std::size_t size) {
    // More than this is taken for more than there is.
    if (fails(&calls.failing_malloc) || size > 1U << 28) {
        return nullptr;
    }
    ++calls.blocks;
    return __real_malloc(size);
}

decltype(free) __real_free;
void __wrap_free(void* block) {
    calls.blocks -= block != nullptr ? 1 : 0;
    __real_free(block);
}

decltype(pthread_mutex_init) __real_pthread_mutex_init;
int __wrap_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) {
    if (auto* const hook = std::exchange(calls.in_mutex_init, nullptr); hook != nullptr) {
        hook();
    }
    if (fails(&calls.failing_mutex_init)) {
        return ENOMEM;
    }
    if (!replace_counted(nullptr, mutex)) {
        std::abort();
    }
    ++calls.mutexes;
    return __real_pthread_mutex_init(mutex, attributes);
}

decltype(pthread_mutex_unlock) __real_pthread_mutex_unlock;
int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex) {
    if (pthread_mutex_trylock(mutex) == 0) {
        std::abort();  // nobody had locked it
    }
    return __real_pthread_mutex_unlock(mutex);
}

decltype(pthread_mutex_destroy) __real_pthread_mutex_destroy;
int __wrap_pthread_mutex_destroy(pthread_mutex_t* mutex) {
    calls.mutexes -= replace_counted(mutex, nullptr) ? 1 : 0;
    return __real_pthread_mutex_destroy(mutex);
}

#ifdef __ANDROID__
// The C++ library and the compiler's are linked in there, so that their memory would be the program's own.
//
// The words of a thread, whose failure would end the process.
void* __real___emutls_get_address(void* of);
void* __wrap___emutls_get_address(void* of) {
    const int countdown = std::exchange(calls.failing_malloc, 0);
    void* const words = __real___emutls_get_address(of);
    calls.failing_malloc = countdown;
    return words;
}
// new and delete, by the names that the linker knows.
void* __wrap__Znwj(std::size_t size) {
    void* const block = __real_malloc(std::max(size, std::size_t{1}));
    return block != nullptr ? block : throw std::bad_alloc();
}
void __wrap__ZdlPv(void* block) {
    __real_free(block);
}
void __wrap__ZdlPvj(void* block, std::size_t /*size*/) {
    __real_free(block);
}
#endif

}  // extern "C"
