#include "tests/support/platform_log.h"

#include <android/log.h>

#include <mutex>
#include <ostream>
#include <utility>

namespace test_support {

namespace {

std::mutex lock;
std::vector<log_line> lines;

}  // namespace

std::vector<log_line> take_log_lines() {
    const std::lock_guard held(lock);
    return std::exchange(lines, {});
}

void PrintTo(const log_line& line, std::ostream* out) {
    *out << line.priority << '/' << line.tag << ": \"" << line.text << '"';
}

}  // namespace test_support

extern "C" __attribute__((visibility("default"))) int __android_log_write(int priority, const char* tag,
                                                                          const char* text) {
    const std::lock_guard held(test_support::lock);
    test_support::lines.push_back({priority, tag, text});
    return 1;
}
