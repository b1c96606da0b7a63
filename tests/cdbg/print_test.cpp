// Printing from any thread and at any time: start-up on first use, and what a message looks like.
#include "cdbg/print.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <barrier>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <future>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "cdbg/env.h"
#include "cdbg/src/vexa_cdbg_failure.h"
#include "cdbg/src/vexa_cdbg_print.h"
#include "tests/cdbg/outputs.h"
#include "tests/cdbg/settings.h"
#include "tests/support/failing_calls.h"
#include "tests/support/platform_log.h"

namespace {

using namespace test_support;

constexpr int start_up_mutexes = 14;
const std::string truncated = "\n***MESSAGE TRUNCATED***\n";

strings lines_of(const std::string& text) {
    strings lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

// Runs a function on many threads that begin it at the same moment.
void on_threads(int count, const std::function<void(int)>& function) {
    std::barrier start(count);
    std::vector<std::future<void>> running;  // joined by their destructors
    for (int i = 0; i < count; ++i) {
        running.push_back(std::async(std::launch::async, [&, i] {
            start.arrive_and_wait();
            function(i);
        }));
    }
}

// Prints in a process of its own while none of this program's initialisers but this one has run.
int early_pipe[2];
[[gnu::constructor(101)]] void print_early() {
    if (pipe(early_pipe) == 0 && fork() == 0) {
        dup2(early_pipe[1], STDERR_FILENO);
        cdbg_print_to_error_channel("early %d", 1);
        _exit(0);
    }
}

TEST(print, works_before_load_time_initialisers) {
    wait(nullptr);
    char text[32] = {};
    EXPECT_EQ(read(early_pipe[0], text, sizeof text - 1), 8);
    EXPECT_STREQ(text, "early 1\n");
}

TEST(print, messages) {
    const std::string formatting_error = "\n***FORMATTING ERROR***\n";
    const auto header = [](const std::string& name) { return "==>[E] (" + name + ") M: L f\n"; };
    const std::string worker = header("worker"), longest(2000, 'x'), verbose(1900, 'x');
    constexpr std::uint32_t plain = 9;  // the error channel, without a header
    const struct {
        std::uint32_t channel;
        int priority;
        const char* format;
        std::string text, expected, thread = "worker";
    } rows[] = {
        {plain, 6, "%s", "", "\n"},
        {plain, 6, "100%% of %s", "it", "100% of it\n"},
        {plain, 6, "%s", longest, longest.substr(0, 511 - truncated.size()) + truncated},
        {plain, 6, "a %e", "", formatting_error},
        {2, 6, "went %s", "wrong", worker + "went wrong\n"},
        {1, 5, "%s", "ended\n", worker + "ended\n\n"},
        {0, 4, "%s", "told", worker + "told\n"},
        {3, 2, "%s", verbose, worker + verbose + "\n"},
        {2, 6, "lost %e", "", worker + formatting_error},
        {2, 6, "%s", longest, (worker + longest).substr(0, 511 - truncated.size()) + truncated},
        {4, 0, "%s", "no such channel", ""},
        {2, 6, "%s", "t", header("") + "t\n", ""},
    };
    for (const auto& row : rows) {
        const outcome seen = run_apart([&] {
            prctl(PR_SET_NAME, row.thread.c_str());
            if (row.channel == plain) {
                cdbg_print_to_error_channel(row.format, row.text.c_str());
            } else {
                cdbgp_print_to_important_channel(row.channel, "E", "M", "L", "f", row.format,
                                                 row.text.c_str());
            }
        });
        const bool to_stdout = row.channel == CDBGP_CHANNEL_INFO || row.channel == CDBGP_CHANNEL_VERBOSE;
        EXPECT_EQ(to_stdout ? seen.output : seen.error, row.expected);
        EXPECT_EQ(to_stdout ? seen.error : seen.output, "");
        EXPECT_EQ(seen.log, row.priority == 0 ? "" : std::to_string(row.priority) + "/vexa:" + row.expected);
    }
}

TEST(print, emergency_message_of_every_length_around_its_array) {
    prctl(PR_SET_NAME, "t");
    const std::string header = "==>[F] (t) M: L f\n";
    for (std::size_t length = 1024 - header.size() - 30; length < 1024; ++length) {
        const std::string text(length, 'x');
        cdbgp_print_to_emergency_channel("F", "M", "L", "f", "%s", text.c_str());
        std::string expected = header + text + "\n";
        if (expected.size() >= 1024) {
            expected.replace(998, std::string::npos, truncated);
        }
        EXPECT_EQ(take_log_lines(), (std::vector<log_line>{{6, "vexa", expected}}));
    }
    EXPECT_EQ(cdbgp_channels[0].ring.data, nullptr) << "diagnostics was started";
}

// With each mutex in turn missing: what is reported, and which of the streams is lost for good. A second
// start reads the file and the environment again.
TEST(start_up, each_failure_is_reported_undone_and_tried_again) {
    const std::string spin_lock = "Initialization of spin lock failed (1)\n";
    const std::string shared = "cdbgp_channel_init\nIniting shared dests 0x3: failed to init 0x";
    const std::string some_lost = ". Some debug output may not appear due to this\n";
    strings reports = {"cdbgp_env_init\n" + spin_lock, "cdbgp_control_init\n" + spin_lock,
                       shared + "2" + some_lost, shared + "1" + some_lost};
    for (const char* channel : {"0", "0", "1", "1", "2", "2", "3", "3", "3"}) {
        reports.push_back("cdbgp_print_init\nInitialization of CDBG channel " + std::string(channel) +
                          " failed (3)\n");
    }
    reports.insert(reports.end(), {"cdbgp_failure_init\n" + spin_lock, ""});
    for (int failing = 1; const std::string& report : reports) {
        SCOPED_TRACE(failing);
        const bool starts = report.empty() || report.starts_with(shared);
        const outcome seen = run_apart([&] {
            const settings file({}, "SETTING=before");
            setenv("VEXA_OWN", "before", 1);
            const int mutexes = calls.mutexes, blocks = calls.blocks;
            calls.failing_mutex_init = failing;
            cdbg_print_to_error_channel("first");
            if (!starts && (calls.mutexes != mutexes || calls.blocks != blocks)) {
                _exit(1);
            }
            std::ofstream(file.path()) << "SETTING=after";
            setenv("VEXA_OWN", "after", 1);
            char setting[8] = {}, own[8] = {};
            cdbg_env_get("SETTING", setting, sizeof setting);
            cdbg_env_get("OWN", own, sizeof own);
            cdbg_print_to_error_channel("%s %s", setting, own);
        });
        EXPECT_EQ(seen.status, 0) << "something was left behind";
        const bool no_stderr = failing == 3;
        EXPECT_EQ(seen.error, no_stderr ? "" : starts ? "first\nbefore before\n" : "after after\n");
        const std::regex header("==>\\[INIT\\] \\(.+\\) CDBG: In file: cdbg/src/[a-z_]+  line: [0-9]+ ");
        EXPECT_EQ(std::regex_replace(seen.log, header, ""),
                  (report.empty() ? "" : "6/vexa:" + report) +
                      (starts ? "6/vexa:first\n6/vexa:before before\n" : "6/vexa:after after\n"));
        ++failing;
    }
    EXPECT_EQ(reports.size(), start_up_mutexes + 1U);
}

TEST(start_up, no_memory_at_any_point_leaves_nothing_behind) {
    bool all_given = false;
    for (int failing = 1; !all_given; ++failing) {
        ASSERT_LT(failing, 100);
        const outcome seen = run_apart([failing] {
            const int mutexes = calls.mutexes, blocks = calls.blocks;
            calls.failing_malloc = failing;
            const bool up = cdbgp_init() == CDBGP_SUCCESS;
            const bool given = calls.failing_malloc != 0;
            const bool clean = calls.mutexes == mutexes && calls.blocks == blocks;
            cdbg_print_to_error_channel("at last");
            _exit(given ? 2 : up || clean ? 0 : 1);
        });
        all_given = WEXITSTATUS(seen.status) == 2;
        EXPECT_NE(WEXITSTATUS(seen.status), 1) << failing;
        EXPECT_EQ(seen.error, "at last\n") << failing;
    }
}

TEST(start_up, a_print_by_an_initialiser_is_dropped_and_a_quit_is_silent) {
    const outcome dropped = run_apart([] {
        calls.in_mutex_init = [] { cdbg_print_to_error_channel("inside"); };
        cdbg_print_to_error_channel("outside");
        std::thread([] { cdbg_print_to_error_channel("elsewhere"); }).join();
    });
    EXPECT_EQ(dropped.error, "outside\nelsewhere\n");
    EXPECT_EQ(dropped.log, "6/vexa:outside\n6/vexa:elsewhere\n");
    const outcome quit = run_apart([] {
        calls.in_mutex_init = [] {
            cdbgp_print_to_important_channel(2, "ERROR", "M", "L", "f", "inside");
            cdbgp_quit();
        };
        cdbg_print_to_error_channel("outside");
    });
    EXPECT_TRUE(WIFSIGNALED(quit.status) && WTERMSIG(quit.status) == SIGABRT) << quit.status;
    // An emulator has a line of its own to say about such an end.
    EXPECT_EQ(quit.error.find("side"), std::string::npos) << quit.error;
    EXPECT_EQ(quit.log, "");
}

// Where the first start fails, that thread's message is lost, and one of those that waited starts it.
TEST(start_up, many_first_prints_at_once_start_it_once) {
    for (const int threads : {2, 8, 32}) {
        for (const int failures : {0, 1}) {
            const outcome seen = run_apart([&] {
                const int mutexes = calls.mutexes;
                calls.failing_mutex_init = failures;
                // The first of them is slow, so that the others come while it is at it.
                calls.in_mutex_init = [] { std::this_thread::sleep_for(std::chrono::milliseconds(20)); };
                on_threads(threads, [](int i) { cdbg_print_to_error_channel("%d", i); });
                _exit(calls.mutexes - mutexes == start_up_mutexes ? 0 : 1);
            });
            EXPECT_EQ(seen.status, 0);
            const strings lines = lines_of(seen.error);
            EXPECT_EQ(lines.size(), static_cast<std::size_t>(threads - failures));
            std::set<int> numbers;
            for (const std::string& line : lines) {
                numbers.insert(std::stoi(line));
            }
            EXPECT_TRUE(numbers.size() == lines.size() && *numbers.begin() >= 0 &&
                        *numbers.rbegin() < threads);
        }
    }
}

// Streams that take one byte at a time: only the lock keeps a message together. Two channels share each.
TEST(print, messages_of_many_threads_stay_whole_on_every_stream) {
    constexpr int threads = 32, messages = 20;
    const outcome seen = run_apart([] {
        outputs.bytewise = true;
        on_threads(threads, [](int i) {
            const auto channel = static_cast<std::uint32_t>(i) % CDBGP_CHANNEL_COUNT;
            for (int message = 0; message < messages; ++message) {
                cdbgp_print_to_important_channel(channel, "F", "M", "L", "f", "%d %d end", i, message);
            }
        });
    });
    EXPECT_EQ(seen.status, 0);
    for (const std::string& text : {seen.error, seen.output}) {
        const strings lines = lines_of(text);
        ASSERT_EQ(lines.size(), std::size_t{threads} * messages);  // two lines each, from half of the threads
        std::set<std::string> bodies;
        for (std::size_t i = 0; i < lines.size(); i += 2) {
            EXPECT_TRUE(lines[i].starts_with("==>[F] (") && lines[i].ends_with(") M: L f")) << lines[i];
            EXPECT_TRUE(lines[i + 1].ends_with(" end")) << lines[i + 1];
            bodies.insert(lines[i + 1]);
        }
        EXPECT_EQ(bodies.size(), lines.size() / 2);
    }
}

}  // namespace
