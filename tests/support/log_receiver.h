// The platform's log where it ends on a device: the socket that its daemon receives on.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace test_support {

struct logged_line {
    unsigned log;  // 0 is the main one
    int priority;
    std::string tag;
    std::string text;

    bool operator==(const logged_line&) const = default;
};

void PrintTo(const logged_line& line, std::ostream* out);  // for GoogleTest's messages

// Receives what all programs of this machine log, for as long as it lives. There can be one at a time.
class log_receiver {
public:
    log_receiver();
    ~log_receiver();
    log_receiver(const log_receiver&) = delete;
    log_receiver& operator=(const log_receiver&) = delete;

    // What has come since the last call, but for the log of events. A line that is not whole fails the test.
    std::vector<logged_line> take();

private:
    int socket_;
};

}  // namespace test_support
