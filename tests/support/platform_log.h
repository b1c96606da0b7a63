// The platform's log, caught: linked into a test program, it takes the place of the real call.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace test_support {

struct log_line {
    int priority;
    std::string tag;
    std::string text;

    bool operator==(const log_line&) const = default;
};

void PrintTo(const log_line& line, std::ostream* out);  // for GoogleTest's messages

// All lines since the last call. Any thread may call it.
std::vector<log_line> take_log_lines();

}  // namespace test_support
