// The calls that tests of diagnostics answer themselves.
#include "tests/cdbg/calls.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "cdbg/src/vexa_cdbg_print.h"

namespace test_support {

call_control calls;

outcome run_apart(const std::function<void()>& body) {
    EXPECT_EQ(cdbgp_channels[0].ring.data, nullptr) << "diagnostics is up already";
    std::array<std::FILE*, 3> files = {std::tmpfile(), std::tmpfile(), std::tmpfile()};
    const pid_t child = fork();
    if (child == 0) {
        dup2(fileno(files[0]), STDOUT_FILENO);
        dup2(fileno(files[1]), STDERR_FILENO);
        calls.log_file = fileno(files[2]);
        body();
        _exit(0);
    }
    outcome result = {};
    waitpid(child, &result.status, 0);
    std::array<std::string*, 3> texts = {&result.output, &result.error, &result.log};
    for (std::size_t i = 0; i < files.size(); ++i) {
        std::rewind(files[i]);
        for (int c = std::getc(files[i]); c != EOF; c = std::getc(files[i])) {
            *texts[i] += static_cast<char>(c);
        }
        std::fclose(files[i]);
    }
    return result;
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
        ++calls.busy_given;
        return -EAGAIN;
    }
    if (calls.log_file >= 0) {
        const std::string line = std::to_string(priority) + "/" + tag + ":" + text;
        EXPECT_EQ(write(calls.log_file, line.data(), line.size()), static_cast<ssize_t>(line.size()));
    }
    return __real___android_log_write(priority, tag, text);
}

}  // extern "C"
