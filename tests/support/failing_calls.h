// Memory and mutexes, of which a test can let a program run short and see what it leaves behind. For the code
// that is linked statically into a program with the library failing_calls.
#pragma once

#include <atomic>

namespace test_support {

struct call_control {
    int failing_mutex_init = 0;  // the call that fails next, counted from 1; 0 for none
    int failing_malloc = 0;
    std::atomic<int> mutexes = 0;       // that were made and not destroyed
    std::atomic<int> blocks = 0;        // that were allocated and not freed
    void (*in_mutex_init)() = nullptr;  // called once
};
extern call_control calls;

}  // namespace test_support
