// Printing from any thread and at any time: start-up on first use, and what a message looks like.
#include "cdbg/print.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <barrier>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "cdbg/env.h"
#include "cdbg/src/vexa_cdbg_failure.h"
#include "cdbg/src/vexa_cdbg_print.h"
#include "tests/cdbg/calls.h"

namespace {

using namespace test_support;

constexpr int start_up_mutexes = 14;

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

// Prints in a process of its own while none of this program's initialisers but this one has run.
std::FILE* early_text;
[[gnu::constructor(101)]] void print_early() {
    early_text = std::tmpfile();
    if (const pid_t child = fork(); child != 0) {
        waitpid(child, nullptr, 0);
        return;
    }
    dup2(fileno(early_text), STDERR_FILENO);
    cdbg_print_to_error_channel("early %d", 1);
    _exit(0);
}

TEST(print, works_before_load_time_initialisers) {
    char text[32] = {};
    std::rewind(early_text);
    EXPECT_EQ(std::fread(text, 1, sizeof text - 1, early_text), 8U);
    EXPECT_STREQ(text, "early 1\n");
    std::fclose(early_text);
}

TEST(print, messages) {
    const std::string header = "==>[ERROR] (worker) OSU: In file: x  line: 1 f\n";
    const auto report = [](std::uint32_t channel, const char* format, const char* text) {
        prctl(PR_SET_NAME, "worker");
        cdbgp_print_to_important_channel(channel, "ERROR", "OSU", "In file: x  line: 1", "f", format, text);
    };
    const std::string truncated = "\n***MESSAGE TRUNCATED***\n";
    const std::string formatting_error = "\n***FORMATTING ERROR***\n";
    const std::string longest(2000, 'x');
    const std::string verbose(1900, 'x');
    struct {
        std::function<void()> print;
        std::string error, output;
        int priority;
    } const rows[] = {
        {[] { cdbg_print_to_error_channel("%s", ""); }, "\n", "", 6},
        {[] { cdbg_print_to_error_channel("100%% of %d", 7); }, "100% of 7\n", "", 6},
        {[&] { cdbg_print_to_error_channel("%s", longest.c_str()); },
         longest.substr(0, 511 - truncated.size()) + truncated, "", 6},
        {[] {
             const char* volatile bad = "a %e";
             cdbg_print_to_error_channel(bad, 1.0);
         },
         formatting_error, "", 6},
        {[&] { report(2, "went %s", "wrong"); }, header + "went wrong\n", "", 6},
        {[&] { report(1, "%s", "ended\n"); }, header + "ended\n\n", "", 5},
        {[&] { report(0, "%s", "told"); }, "", header + "told\n", 4},
        {[&] { report(3, "%s", verbose.c_str()); }, "", header + verbose + "\n", 2},
        {[&] { report(2, "lost %e", ""); }, header + formatting_error, "", 6},
        {[&] { report(2, "%s", longest.c_str()); },
         (header + longest).substr(0, 511 - truncated.size()) + truncated, "", 6},
        {[&] { report(4, "%s", "no such channel"); }, "", "", 0},
        {[] {
             prctl(PR_SET_NAME, "");
             cdbgp_print_to_important_channel(2, "F", "M", "L", "f", "t");
         },
         "==>[F] () M: L f\nt\n", "", 6},
    };
    for (const auto& row : rows) {
        const outcome seen = run_apart(row.print);
        EXPECT_EQ(seen.status, 0);
        EXPECT_EQ(seen.error, row.error);
        EXPECT_EQ(seen.output, row.output);
        const std::string arrived = row.error + row.output;
        EXPECT_EQ(seen.log, row.priority == 0 ? "" : std::to_string(row.priority) + "/vexa:" + arrived);
    }
}

TEST(print, emergency_message_of_every_length_around_its_array) {
    const std::string header = "==>[F] (t) M: L f\n";
    for (std::size_t length = 1024 - header.size() - 30; length < 1024; ++length) {
        const outcome seen = run_apart([length] {
            prctl(PR_SET_NAME, "t");
            cdbgp_print_to_emergency_channel("F", "M", "L", "f", "%s", std::string(length, 'x').c_str());
            calls.log_file = -1;
            _exit(cdbgp_channels[0].ring.data == nullptr ? 0 : 1);
        });
        EXPECT_EQ(seen.status, 0) << "diagnostics was started";
        std::string expected = header + std::string(length, 'x') + "\n";
        if (expected.size() >= 1024) {
            expected.replace(998, std::string::npos, "\n***MESSAGE TRUNCATED***\n");
        }
        EXPECT_EQ(seen.log, "6/vexa:" + expected);
    }
}

// With each mutex in turn missing: what is reported, and which of the streams is lost for good.
TEST(start_up, each_failure_is_reported_undone_and_tried_again) {
    const std::string spin_lock = "Initialization of spin lock failed (1)";
    const auto channel = [](int index) {
        return "Initialization of CDBG channel " + std::to_string(index) + " failed (3)";
    };
    const auto shared = [](int failed) {
        return "Initing shared dests 0x3: failed to init 0x" + std::to_string(failed) +
               ". Some debug output may not appear due to this";
    };
    struct {
        std::string function, report;
        bool starts;
    } const rows[start_up_mutexes + 1] = {
        {"cdbgp_env_init", spin_lock, false},
        {"cdbgp_control_init", spin_lock, false},
        {"cdbgp_channel_init", shared(2), true},
        {"cdbgp_channel_init", shared(1), true},
        {"cdbgp_print_init", channel(0), false},
        {"cdbgp_print_init", channel(0), false},
        {"cdbgp_print_init", channel(1), false},
        {"cdbgp_print_init", channel(1), false},
        {"cdbgp_print_init", channel(2), false},
        {"cdbgp_print_init", channel(2), false},
        {"cdbgp_print_init", channel(3), false},
        {"cdbgp_print_init", channel(3), false},
        {"cdbgp_print_init", channel(3), false},
        {"cdbgp_failure_init", spin_lock, false},
        {"", "", true},
    };
    for (int failing = 1; const auto& row : rows) {
        const outcome seen = run_apart([&] {
            const int mutexes = calls.mutexes;
            const int blocks = calls.blocks;
            setenv("VEXA_SETTING", "before", 1);
            calls.failing_mutex_init = failing;
            cdbg_print_to_error_channel("first");
            if (!row.starts && (calls.mutexes != mutexes || calls.blocks != blocks)) {
                _exit(1);
            }
            setenv("VEXA_SETTING", "after", 1);
            char setting[8] = {};
            cdbg_env_get("SETTING", setting, sizeof setting);
            cdbg_print_to_error_channel("second %s", setting);
        });
        EXPECT_EQ(seen.status, 0) << failing << ": something was left behind";
        const bool no_stderr = failing == 3;
        const std::string printed = row.starts ? "first\nsecond before\n" : "second after\n";
        EXPECT_EQ(seen.error, no_stderr ? "" : printed) << failing;
        std::string log = row.starts ? "6/vexa:first\n6/vexa:second before\n" : "6/vexa:second after\n";
        if (row.report.empty()) {
            EXPECT_EQ(seen.log, log);
        } else {
            EXPECT_TRUE(seen.log.starts_with("6/vexa:==>[INIT] (")) << seen.log;
            EXPECT_TRUE(seen.log.ends_with(" " + row.function + "\n" + row.report + "\n" + log)) << seen.log;
        }
        ++failing;
    }
}

TEST(start_up, no_memory_at_any_point_leaves_nothing_behind) {
    bool all_given = false;
    for (int failing = 1; !all_given; ++failing) {
        ASSERT_LT(failing, 100);
        const outcome seen = run_apart([failing] {
            const int mutexes = calls.mutexes;
            const int blocks = calls.blocks;
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

TEST(start_up, many_first_prints_at_once_start_it_once) {
    for (const int threads : {2, 8, 32}) {
        const outcome seen = run_apart([threads] {
            const int mutexes = calls.mutexes;
            // The first of them is slow, so that the others come while it is at it.
            calls.in_mutex_init = [] { std::this_thread::sleep_for(std::chrono::milliseconds(20)); };
            std::barrier start(threads);
            std::vector<std::thread> printers;
            for (int i = 0; i < threads; ++i) {
                printers.emplace_back([&start, i] {
                    start.arrive_and_wait();
                    cdbg_print_to_error_channel("thread %d", i);
                });
            }
            for (std::thread& printer : printers) {
                printer.join();
            }
            _exit(calls.mutexes - mutexes == start_up_mutexes ? 0 : 1);
        });
        EXPECT_EQ(seen.status, 0);
        std::multiset<std::string> expected;
        for (int i = 0; i < threads; ++i) {
            expected.insert("thread " + std::to_string(i));
        }
        const std::vector<std::string> lines = lines_of(seen.error);
        EXPECT_EQ(std::multiset<std::string>(lines.begin(), lines.end()), expected);
    }
}

// Streams that take one byte at a time: only the lock keeps a message together. Two channels share each.
TEST(print, messages_of_many_threads_stay_whole_on_every_stream) {
    constexpr int threads = 32;
    constexpr int messages = 20;
    const outcome seen = run_apart([] {
        calls.bytewise = true;
        std::vector<std::thread> printers;
        for (int i = 0; i < threads; ++i) {
            printers.emplace_back([i] {
                const auto channel = static_cast<std::uint32_t>(i) % CDBGP_CHANNEL_COUNT;
                for (int message = 0; message < messages; ++message) {
                    cdbgp_print_to_important_channel(channel, "F", "M", "L", "f", "%d %d end", i, message);
                }
            });
        }
        for (std::thread& printer : printers) {
            printer.join();
        }
    });
    EXPECT_EQ(seen.status, 0);
    for (const std::string& text : {seen.error, seen.output}) {
        const std::vector<std::string> lines = lines_of(text);
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
