// The calls that tests of diagnostics answer themselves.
#include "tests/cdbg/calls.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "cdbg/src/vexa_cdbg_print.h"
#include "tests/support/process.h"

namespace test_support {

call_control calls;

outcome run_apart(const std::function<void()>& body) {
    EXPECT_EQ(cdbgp_channels[0].ring.data, nullptr) << "diagnostics is up already";
    const temporary_folder folder;
    const std::string output = folder.file("output"), error = folder.file("error"), log = folder.file("log");
    const pid_t child = fork();
    if (child == 0) {
        dup2(creat(output.c_str(), 0600), STDOUT_FILENO);
        dup2(creat(error.c_str(), 0600), STDERR_FILENO);
        calls.log_file = creat(log.c_str(), 0600);
        body();
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return {status, read_file(output), read_file(error), read_file(log)};
}

}  // namespace test_support

using namespace test_support;

namespace {

bool fails(int* countdown) {
    return *countdown > 0 && --*countdown == 0;
}

}  // namespace

// The linker leads this program's own calls to __wrap_, and __real_ to where they went.
extern "C" {

int __real_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes);
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

int __real_pthread_mutex_destroy(pthread_mutex_t* mutex);
int __wrap_pthread_mutex_destroy(pthread_mutex_t* mutex) {
    --calls.mutexes;
    return __real_pthread_mutex_destroy(mutex);
}

void* __real_malloc(std::size_t size);
void* __wrap_malloc(std::size_t size) {
    if (fails(&calls.failing_malloc)) {
        return nullptr;
    }
    ++calls.blocks;
    return __real_malloc(size);
}

void __real_free(void* block);
void __wrap_free(void* block) {
    calls.blocks -= block != nullptr ? 1 : 0;
    __real_free(block);
}

int __wrap_usleep(useconds_t microseconds) {
    calls.sleeps.push_back(microseconds);
    return 0;
}

std::size_t __real_fwrite(const void* text, std::size_t size, std::size_t count, std::FILE* stream);
std::size_t __wrap_fwrite(const void* text, std::size_t size, std::size_t count, std::FILE* stream) {
    if (!calls.bytewise) {
        return __real_fwrite(text, size, count, stream);
    }
    std::size_t written = 0;
    while (written < count && __real_fwrite(static_cast<const char*>(text) + written, 1, 1, stream) == 1) {
        ++written;
        sched_yield();
    }
    return written;
}

int __real___android_log_write(int priority, const char* tag, const char* text);
int __wrap___android_log_write(int priority, const char* tag, const char* text) {
    if (calls.busy_answers > 0) {
        --calls.busy_answers;
        return -EAGAIN;
    }
    if (calls.log_file >= 0) {
        const std::string line = std::to_string(priority) + "/" + tag + ":" + text;
        EXPECT_EQ(write(calls.log_file, line.data(), line.size()), static_cast<ssize_t>(line.size()));
    }
    return __real___android_log_write(priority, tag, text);
}

}  // extern "C"
