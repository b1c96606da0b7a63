// What diagnostics takes its settings from and what its messages go to, under a test's control.
#pragma once

#include <android/log.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "cdbg/src/vexa_cdbg_print.h"
#include "tests/support/apart.h"
#include "tests/support/platform_log.h"
#include "tests/support/process.h"

namespace test_support {

using strings = std::vector<std::string>;

// Streams that take the place of files, by path; null for a file that can't be opened.
inline std::map<std::string, std::FILE*> replaced_files;
inline int busy_answers = 0;       // how often the platform log is busy from now on
inline int log_refusal = -EAGAIN;  // what it answers then
inline unsigned slept = 0;         // microseconds; nobody really sleeps
inline bool bytewise = false;      // a stream gets every byte for itself
inline bool atfork_fails = false;  // the next time

// A process environment, and a configuration file if there is content for one, while the object lasts.
class settings {
public:
    explicit settings(strings entries, const std::optional<std::string>& content = {})
        : entries_(std::move(entries)) {
        if (content.has_value()) {
            std::ofstream(path(), std::ios::binary) << *content;
            entries_.insert(entries_.begin(), "VEXA_CONFIG=" + path());
        }
        for (std::string& entry : entries_) {
            environment_.push_back(entry.data());
        }
        environment_.push_back(nullptr);
        environ = environment_.data();
    }
    ~settings() { environ = previous_; }
    settings(const settings&) = delete;
    settings& operator=(const settings&) = delete;

    std::string path() const { return folder_.file("f"); }

private:
    const temporary_folder folder_;
    strings entries_;
    std::vector<char*> environment_;
    char** const previous_ = environ;
};

// The lines of the platform log since the last call, one behind the other. What start-up reports there has a
// header that is left out, all but its function.
inline std::string take_log() {
    static const std::regex header("==>\\[INIT\\] \\(.+\\) CDBG: In file: cdbg/src/[a-z_]+  line: [0-9]+ ");
    std::string text;
    for (const log_line& line : take_log_lines()) {
        text += std::to_string(line.priority) + "/" + line.tag + ":" + line.text;
    }
    return std::regex_replace(text, header, "");
}

// What a child process left behind.
struct outcome {
    std::string output, error, log;
};

// Runs `body` in a child. Diagnostics must not be up in this process: the child is to start it.
inline outcome run_apart(const std::function<void()>& body) {
    EXPECT_EQ(cdbgp_channels[0].ring.data, nullptr) << "diagnostics is up already";
    const std::string report = report_from_child([&] {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        body();
        const std::string output = testing::internal::GetCapturedStdout();
        return output + '\0' + testing::internal::GetCapturedStderr() + '\0' + take_log();
    });
    const std::size_t end = report.find('\0');
    const std::size_t last = report.rfind('\0');
    return {report.substr(0, end), report.substr(end + 1, last - end - 1), report.substr(last + 1)};
}

}  // namespace test_support

// The linker leads this program's own calls to __wrap_, and __real_ to where they went.
extern "C" {

std::FILE* __real_fopen64(const char* path, const char* mode);
[[gnu::used]] inline std::FILE* __wrap_fopen64(const char* path, const char* mode) {
    const auto found = test_support::replaced_files.find(path);
    return found != test_support::replaced_files.end() ? found->second : __real_fopen64(path, mode);
}

[[gnu::used]] inline int __wrap_usleep(useconds_t microseconds) {
    test_support::slept += microseconds;
    return 0;
}

decltype(fwrite) __real_fwrite;
[[gnu::used]] inline std::size_t __wrap_fwrite(const void* text, std::size_t size, std::size_t count,
                                               std::FILE* stream) {
    if (!test_support::bytewise) {
        return __real_fwrite(text, size, count, stream);
    }
    std::size_t written = 0;
    while (written < count && __real_fwrite(static_cast<const char*>(text) + written, 1, 1, stream) == 1) {
        ++written;
        sched_yield();
    }
    return written;
}

decltype(pthread_atfork) __real_pthread_atfork;
[[gnu::used]] inline int __wrap_pthread_atfork(void (*prepare)(), void (*parent)(), void (*child)()) {
    return std::exchange(test_support::atfork_fails, false) ? ENOMEM
                                                            : __real_pthread_atfork(prepare, parent, child);
}

decltype(__android_log_write) __real___android_log_write;
[[gnu::used]] inline int __wrap___android_log_write(int priority, const char* tag, const char* text) {
    return test_support::busy_answers > 0 ? (--test_support::busy_answers, test_support::log_refusal)
                                          : __real___android_log_write(priority, tag, text);
}

}  // extern "C"
