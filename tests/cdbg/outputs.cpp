#include "tests/cdbg/outputs.h"

#include <android/log.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "cdbg/src/vexa_cdbg_print.h"
#include "tests/support/process.h"

namespace test_support {

output_control outputs;

outcome run_apart(const std::function<void()>& body) {
    EXPECT_EQ(cdbgp_channels[0].ring.data, nullptr) << "diagnostics is up already";
    const temporary_folder folder;
    const std::string output = folder.file("output"), error = folder.file("error"), log = folder.file("log");
    const pid_t child = fork();
    if (child == 0) {
        dup2(creat(output.c_str(), 0600), STDOUT_FILENO);
        dup2(creat(error.c_str(), 0600), STDERR_FILENO);
        outputs.log_file = creat(log.c_str(), 0600);
        body();
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return {status, read_file(output), read_file(error), read_file(log)};
}

}  // namespace test_support

using namespace test_support;

// The linker leads this program's own calls to __wrap_, and __real_ to where they went.
extern "C" {

int __wrap_usleep(useconds_t microseconds) {
    outputs.sleeps.push_back(microseconds);
    return 0;
}

decltype(fwrite) __real_fwrite;
std::size_t __wrap_fwrite(const void* text, std::size_t size, std::size_t count, std::FILE* stream) {
    if (!outputs.bytewise) {
        return __real_fwrite(text, size, count, stream);
    }
    std::size_t written = 0;
    while (written < count && __real_fwrite(static_cast<const char*>(text) + written, 1, 1, stream) == 1) {
        ++written;
        sched_yield();
    }
    return written;
}

decltype(__android_log_write) __real___android_log_write;
int __wrap___android_log_write(int priority, const char* tag, const char* text) {
    if (outputs.busy_answers > 0) {
        --outputs.busy_answers;
        return -EAGAIN;
    }
    if (outputs.log_file >= 0) {
        const std::string line = std::to_string(priority) + "/" + tag + ":" + text;
        EXPECT_EQ(write(outputs.log_file, line.data(), line.size()), static_cast<ssize_t>(line.size()));
    }
    return __real___android_log_write(priority, tag, text);
}

}  // extern "C"
