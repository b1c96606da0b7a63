// Calls of this program's own code that its tests answer, count or slow down. The linker leads them here.
#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <vector>

namespace test_support {

struct call_control {
    int failing_mutex_init = 0;  // the call that fails next, counted from 1; 0 for none
    int failing_malloc = 0;
    std::atomic<int> mutexes = 0;       // that were made and not destroyed
    std::atomic<int> blocks = 0;        // that were allocated and not freed
    void (*in_mutex_init)() = nullptr;  // called once

    int busy_answers = 0;          // how often the platform log is busy from now on
    std::vector<unsigned> sleeps;  // in microseconds; nobody really sleeps
    bool bytewise = false;         // a stream gets every byte for itself
    int log_file = -1;             // also gets the lines of the platform log
};
extern call_control calls;

// What a child process left behind.
struct outcome {
    int status;  // as waitpid gives it
    std::string output, error, log;
};

// Runs `body` in a child with files for its streams and its log. Diagnostics must not be up in this process:
// the child is to start it.
outcome run_apart(const std::function<void()>& body);

}  // namespace test_support
