// The linker leads the program's own calls to __wrap_, and __real_ to where they went.
#include "tests/support/failing_calls.h"

#include <pthread.h>

#include <cerrno>
#include <cstdlib>
#include <utility>

namespace test_support {

constinit call_control calls;

}  // namespace test_support

using test_support::calls;

namespace {

bool fails(int* countdown) {
    return *countdown > 0 && --*countdown == 0;
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
    ++calls.mutexes;
    return __real_pthread_mutex_init(mutex, attributes);
}

decltype(pthread_mutex_destroy) __real_pthread_mutex_destroy;
int __wrap_pthread_mutex_destroy(pthread_mutex_t* mutex) {
    --calls.mutexes;
    return __real_pthread_mutex_destroy(mutex);
}

}  // extern "C"
