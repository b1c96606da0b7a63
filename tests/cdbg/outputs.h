// What the program's messages go to. The linker leads this program's own calls here.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace test_support {

struct output_control {
    int busy_answers = 0;          // how often the platform log is busy from now on
    std::vector<unsigned> sleeps;  // in microseconds; nobody really sleeps
    bool bytewise = false;         // a stream gets every byte for itself
    int log_file = -1;             // also gets the lines of the platform log
};
extern output_control outputs;

// What a child process left behind.
struct outcome {
    int status;  // as waitpid gives it
    std::string output, error, log;
};

// Runs `body` in a child with files for its streams and its log. Diagnostics must not be up in this process:
// the child is to start it.
outcome run_apart(const std::function<void()>& body);

}  // namespace test_support
