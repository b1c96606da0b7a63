// A whole session, again and again, with the n-th call of one kind failing, until n is beyond the last call:
// what the session comes to, what is said of it, and that nothing is left behind.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <new>
#include <regex>
#include <string>

#include "cdbg/src/vexa_cdbg_control.h"
#include "cdbg/src/vexa_cdbg_env.h"
#include "cdbg/src/vexa_cdbg_failure.h"
#include "cdbg/src/vexa_cdbg_print.h"
#include "tests/robustness/session.h"
#include "tests/support/apart.h"
#include "tests/support/failing_calls.h"
#include "tests/support/own_time.h"

namespace {

using namespace test_support;  // NOLINT(google-build-using-namespace)
using namespace robustness;    // NOLINT(google-build-using-namespace)
using qel::vexa::virtual_gpu::request_kind;

// The kinds of call that are made to fail here, beside those of the virtual GPU and of failing_calls.
enum own_call { call_eventfd, call_fopen, call_fread, call_fgets, call_atfork, call_log };
std::atomic<int> countdowns[call_log + 1];  // the call that reaches 0 fails

bool fails(own_call call) {
    return countdowns[call] > 0 && --countdowns[call] == 0;
}

std::atomic<std::ptrdiff_t> objects = 0;  // that operator new has made and nobody has deleted
std::atomic<bool> loop_has_ended = false;
thread_local bool is_in_driver = false;  // where the virtual GPU starts a thread of its own

}  // namespace

// Under their real names, so that failing_calls does not count them as well.
extern "C" decltype(malloc) __real_malloc;
extern "C" decltype(free) __real_free;

void* operator new(std::size_t size) {
    void* const memory = __real_malloc(size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    ++objects;
    return memory;
}

void operator delete(void* memory) noexcept {
    objects -= memory != nullptr ? 1 : 0;
    __real_free(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept {
    operator delete(memory);
}

// The linker leads the product's calls to __wrap_, and __real_ to where they went.
extern "C" {

decltype(eventfd) __real_eventfd;
int __wrap_eventfd(unsigned count, int flags) {
    errno = EMFILE;
    return fails(call_eventfd) ? -1 : __real_eventfd(count, flags);
}

std::FILE* __real_fopen64(const char* path, const char* mode);
std::FILE* __wrap_fopen64(const char* path, const char* mode) {
    if (fails(call_fopen)) {
        errno = EMFILE;
        return nullptr;
    }
    return __real_fopen64(path, mode);
}

decltype(fread) __real_fread;
std::size_t __wrap_fread(void* data, std::size_t size, std::size_t count, std::FILE* file) {
    return fails(call_fread) ? 0 : __real_fread(data, size, count, file);
}

decltype(fgets) __real_fgets;
char* __wrap_fgets(char* text, int size, std::FILE* file) {
    return fails(call_fgets) ? nullptr : __real_fgets(text, size, file);
}

decltype(pthread_atfork) __real_pthread_atfork;
int __wrap_pthread_atfork(void (*prepare)(), void (*parent)(), void (*child)()) {
    return fails(call_atfork) ? ENOMEM : __real_pthread_atfork(prepare, parent, child);
}

int __real___android_log_write(int priority, const char* tag, const char* text);
int __wrap___android_log_write(int priority, const char* tag, const char* text) {
    return fails(call_log) ? -EPIPE : __real___android_log_write(priority, tag, text);
}

int __real_ioctl(int descriptor, unsigned long request, void* argument);
int __wrap_ioctl(int descriptor, unsigned long request, void* argument) {
    is_in_driver = true;
    const int result = __real_ioctl(descriptor, request, argument);
    is_in_driver = false;
    return result;
}

// Threads come from the C++ library, which the linker doesn't lead anywhere: this takes the place of the C
// library's call.
int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                   void* argument) {
    using function = int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    static auto* const next = reinterpret_cast<function*>(::dlsym(RTLD_NEXT, "pthread_create"));
    if (is_in_driver) {
        return next(thread, attributes, body, argument);
    }
    static void* (*watched)(void*) = nullptr;  // one at a time
    watched = body;
    return next(
        thread, attributes,
        [](void* passed_on) {
            void* const result = watched(passed_on);
            loop_has_ended = true;
            return result;
        },
        argument);
}

}  // extern "C"

namespace {

constexpr std::size_t wanted_samples = 4;

// Something that can fail, how to have its n-th call fail, and what the sessions come to, one letter for each
// n; see outcome_of.
struct failing_kind {
    const char* name;
    std::function<void(unsigned n)> arrange;
    std::function<bool(unsigned n)> has_failed;
    std::string outcomes;  // a regular expression
};

failing_kind driver(const char* name, request_kind kind, int error, const std::string& outcomes) {
    return {name, [=](unsigned n) { machine::fail(kind, error, n); },
            [=](unsigned n) {
                unsigned count = 0;
                for (const auto& request : machine::requests()) {
                    count += request.kind == kind ? 1 : 0;
                }
                return count >= n;
            },
            outcomes};
}

failing_kind own(const char* name, own_call call, const std::string& outcomes) {
    return {name, [=](unsigned n) { countdowns[call] = static_cast<int>(n); },
            [=](unsigned /*n*/) { return countdowns[call] == 0; }, outcomes};
}

failing_kind counted(const char* name, int call_control::*countdown, const std::string& outcomes) {
    return {name, [=](unsigned n) { calls.*countdown = static_cast<int>(n); },
            [=](unsigned /*n*/) { return calls.*countdown == 0; }, outcomes};
}

void set_machine_up() {
    machine::reset();
    machine::add_node(0, {.loses_samples = false});
}

// One session of some samples, from set-up to tear-down.
void run_session() {
    driven_data_source source;
    {
        const own_time time;  // for a node that is waited for
        source.set_up(session_config());
    }
    source.begin();
    if (source.poll_thread.joinable()) {
        EXPECT_TRUE(eventually([] { return loop_has_ended || timestamps().size() >= wanted_samples; }));
    }
    source.stop();
}

// What diagnostics holds for good is given back, and was there to give: a failed start is followed by one
// that works.
void end_diagnostics() {
    EXPECT_EQ(cdbgp_init(), CDBGP_SUCCESS);
    cdbgp_print_term();
    cdbgp_control_term();
    cdbgp_env_term();
}

// Everything that can be held.
struct held {
    std::ptrdiff_t blocks = calls.blocks;
    std::ptrdiff_t mutexes = calls.mutexes;
    std::ptrdiff_t object_count = objects;
    qel::vexa::virtual_gpu::open_counts open = machine::open_now();

    bool operator==(const held&) const = default;
};

// A session of a process of its own: its outcome, or '.' when there was no n-th call.
char try_session(const failing_kind& kind, unsigned n) {
    const std::string outcome = report_from_child([&] {
        // The virtual GPU's own memory is there from now on.
        ::close(::open("/dev/vexa0", O_RDWR | O_CLOEXEC));
        set_machine_up();
        take_log_lines();
        const held_resources resources = held_resources::now();
        const held before;
        loop_has_ended = false;
        kind.arrange(n);
        run_session();
        const char result =
            kind.has_failed(n) ? outcome_of(take_log_lines(), timestamps().size() >= wanted_samples) : '.';
        calls.failing_malloc = calls.failing_mutex_init = 0;
        for (std::atomic<int>& countdown : countdowns) {
            countdown = 0;
        }
        end_diagnostics();
        set_machine_up();
        take_log_lines();
        held after;
        after.mutexes -= 1;  // of failures, which stays
        EXPECT_TRUE(after == before) << after.blocks - before.blocks << " blocks, "
                                     << after.mutexes - before.mutexes << " mutexes, "
                                     << after.object_count - before.object_count << " objects";
        EXPECT_TRUE(nothing_left(resources));
        return std::string(1, result);
    });
    return outcome.empty() ? '?' : outcome[0];
}

class FailureSweep : public testing::Test {
protected:
    FailureSweep() {
        std::ofstream(folder_.file("settings"))
            << "# a comment\nINSTANCE_NOTE=a\nother:KEY=1\n"
            << "CDBG_PERMISSIONS=" << std::string(150, ' ') << "ALL_WARN\n";
        ::setenv("VEXA_CONFIG", folder_.file("settings").c_str(), 1);
        ::setenv("VEXA_MORE", "settings", 1);
        set_machine_up();
    }
    ~FailureSweep() override {
        ::unsetenv("VEXA_CONFIG");
        ::unsetenv("VEXA_MORE");
        machine::reset();
    }

    const temporary_folder folder_;
};

TEST_F(FailureSweep, EveryCallOfASession) {
    const failing_kind kinds[] = {
        driver("open", request_kind::open, EMFILE, "OQ"),
        driver("stat", request_kind::stat, ENOENT, "S"),
        driver("fstat", request_kind::fstat, EIO, "O"),
        driver("version check", request_kind::version_check, EPERM, "OS"),
        driver("set flags", request_kind::set_flags, EIO, "FQ"),
        driver("get properties", request_kind::get_properties, EIO, "PPQQ"),
        driver("map tracking page", request_kind::map_tracking_page, ENOMEM, "T"),
        driver("reader setup", request_kind::reader_setup, ENOMEM, "R"),
        driver("API version", request_kind::get_api_version_with_features, ENOTTY, "S"),
        driver("sample size", request_kind::get_sample_size, EIO, "R"),
        driver("hardware version", request_kind::get_hardware_version, EIO, "R"),
        driver("map ring", request_kind::map_ring, ENOMEM, "R"),
        driver("clear", request_kind::clear, EIO, "BB"),
        driver("set interval", request_kind::set_interval, EIO, "B"),
        driver("poll", request_kind::poll, ENOMEM, "EEEES*"),
        driver("interrupted poll", request_kind::poll, EINTR, "SSSSS*"),
        driver("get buffer", request_kind::get_buffer, EIO, "EEEES*"),
        driver("put buffer", request_kind::put_buffer, EIO, "EEEES*"),
        own("eventfd", call_eventfd, "R"),
        own("fopen", call_fopen, "SS"),
        own("fread", call_fread, "D{50,}"),
        own("fgets", call_fgets, "S"),
        own("pthread_atfork", call_atfork, "SO"),
        own("log write", call_log, "L"),
        counted("malloc", &call_control::failing_malloc, "D{10,}OPRR"),
        counted("mutex", &call_control::failing_mutex_init, "D{10,}"),
    };
    unsigned injected = 0;
    for (const failing_kind& kind : kinds) {
        SCOPED_TRACE(kind.name);
        std::string outcomes;
        while (outcomes.size() < 1000) {
            const char outcome = try_session(kind, static_cast<unsigned>(outcomes.size()) + 1);
            if (outcome == '.') {
                break;
            }
            outcomes += outcome;
        }
        injected += static_cast<unsigned>(outcomes.size());
        EXPECT_TRUE(std::regex_match(outcomes, std::regex(kind.outcomes))) << outcomes;
        std::printf("%-20s %4zu failures: %s\n", kind.name, outcomes.size(), outcomes.c_str());
        std::fflush(stdout);  // or the next children would print it again
    }
    std::printf("%u failures were injected\n", injected);
    RecordProperty("injected", static_cast<int>(injected));
}

}  // namespace
