// Printing from any thread and at any time: start-up on first use, and what a message looks like.
#include "cdbg/print.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "cdbg/env.h"
#include "cdbg/src/vexa_cdbg_failure.h"
#include "osu/vexa_osu.h"
#include "tests/cdbg/surroundings.h"
#include "tests/support/failing_calls.h"

namespace {

using namespace test_support;

constexpr int start_up_mutexes = 14;
const std::string truncated = "\n***MESSAGE TRUNCATED***\n";

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
    const std::string worker = "==>[E] (worker) M: L f\n", longest(2000, 'x'), verbose(1900, 'x');
    constexpr std::uint32_t plain = 9;  // the error channel, without a header
    const struct {
        std::uint32_t channel;
        const char* priority;
        const char* format;
        std::string text, expected;
    } rows[] = {
        {plain, "6", "%s", "", "\n"},
        {plain, "6", "100%% of %s", "it", "100% of it\n"},
        {plain, "6", "%s", longest, longest.substr(0, 511 - truncated.size()) + truncated},
        {plain, "6", "a %e", "", formatting_error},
        {1, "5", "%s", "ended\n", worker + "ended\n\n"},
        {0, "4", "%s", "told", worker + "told\n"},
        {3, "2", "%s", verbose, worker + verbose + "\n"},
        {2, "6", "lost %e", "", worker + formatting_error},
        {4, "", "%s", "no such channel", ""},
    };
    for (const auto& row : rows) {
        const outcome seen = run_apart([&] {
            prctl(PR_SET_NAME, "worker");
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
        EXPECT_EQ(seen.log, row.expected.empty() ? "" : std::string(row.priority) + "/vexa:" + row.expected);
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
        EXPECT_EQ(take_log(), "6/vexa:" + expected);
    }
    EXPECT_EQ(cdbgp_channels[0].ring.data, nullptr) << "diagnostics was started";
}

TEST(print, a_buffer_keeps_account_of_its_room) {
    const std::string formatting_error = "\n***FORMATTING ERROR***\n";
    for (const auto& [first, second, expected] : {std::tuple("%d", "-", std::string("1-")),
                                                  {"%045d", "-", std::string(14, '0') + truncated},
                                                  {"%d", "%e", "1" + formatting_error},
                                                  {"%d", "%030d%e", "1" + formatting_error},
                                                  {"%e", "%d", formatting_error}}) {
        char text[40] = "before";
        cdbgp_buffer buffer;
        cdbgp_buffer_init(&buffer, nullptr, 0);
        cdbgp_buffer_init(&buffer, text, sizeof text);
        EXPECT_STREQ(text, "");
        cdbgp_buffer_printf(&buffer, first, 1);
        cdbgp_buffer_printf(&buffer, second, 1);
        cdbgp_buffer_finish(&buffer);
        EXPECT_EQ(text, expected);
        EXPECT_EQ(buffer.offset, expected.size());
        EXPECT_EQ(buffer.remaining, sizeof text - expected.size());
        EXPECT_EQ(buffer.total, static_cast<std::int32_t>(expected.size()));
    }
}

// With each mutex in turn missing, and each channel's memory: what is reported, and which of the streams is
// lost for good. A second start reads the file and the environment again.
TEST(start_up, each_failure_is_reported_undone_and_tried_again) {
    const std::string spin_lock = "Initialization of spin lock failed (1)\n";
    const std::string shared = "cdbgp_channel_init\nIniting shared dests 0x3: failed to init 0x";
    const std::string some_lost = ". Some debug output may not appear due to this\n";
    strings reports = {"cdbgp_env_init\n" + spin_lock, "cdbgp_control_init\n" + spin_lock,
                       shared + "2" + some_lost, shared + "1" + some_lost};
    strings of_channels;
    for (const char* channel : {"0", "0", "1", "1", "2", "2", "3", "3", "3"}) {
        of_channels.push_back("cdbgp_print_init\nInitialization of CDBG channel " + std::string(channel) +
                              " failed (3)\n");
    }
    reports.insert(reports.end(), of_channels.begin(), of_channels.end());
    reports.insert(reports.end(), {"cdbgp_failure_init\n" + spin_lock, ""});
    // The same of their memory, which is asked for behind that of three settings.
    const int with_memory = static_cast<int>(reports.size());
    constexpr int blocks_of_settings = 6;
    reports.insert(reports.end(), of_channels.begin(), of_channels.end());
    for (int failing = 1; const std::string& report : reports) {
        SCOPED_TRACE(failing);
        const bool starts = report.empty() || report.starts_with(shared);
        const outcome seen = run_apart([&] {
            const settings file({}, "SETTING=before");
            setenv("VEXA_OWN", "before", 1);
            const int mutexes = calls.mutexes, blocks = calls.blocks;
            calls.failing_mutex_init = failing <= with_memory ? failing : 0;
            calls.failing_malloc = failing <= with_memory ? 0 : failing - with_memory + blocks_of_settings;
            cdbg_print_to_error_channel("first");
            EXPECT_TRUE(starts || (calls.mutexes == mutexes && calls.blocks == blocks));
            std::ofstream(file.path()) << "SETTING=after";
            setenv("VEXA_OWN", "after", 1);
            char setting[8] = {}, own[8] = {};
            cdbg_env_get("SETTING", setting, sizeof setting);
            cdbg_env_get("OWN", own, sizeof own);
            cdbg_print_to_error_channel("%s %s", setting, own);
        });
        EXPECT_EQ(seen.error, failing == 3 ? "" : starts ? "first\nbefore before\n" : "after after\n");
        EXPECT_EQ(seen.log, (report.empty() ? "" : "6/vexa:" + report) +
                                (starts ? "6/vexa:first\n6/vexa:before before\n" : "6/vexa:after after\n"));
        ++failing;
    }
    EXPECT_EQ(with_memory, start_up_mutexes + 1);
}

TEST(start_up, a_print_by_an_initialiser_is_dropped_and_a_quit_is_silent) {
    const outcome dropped = run_apart([] {
        calls.in_mutex_init = [] {
            cdbg_print_to_error_channel("inside");
            EXPECT_EQ(cdbg_env_get("ANY", nullptr, 0), CDBG_ENV_ABSENT);
        };
        cdbg_print_to_error_channel("outside");
        std::thread([] { cdbg_print_to_error_channel("elsewhere"); }).join();
    });
    EXPECT_EQ(dropped.log, "6/vexa:outside\n6/vexa:elsewhere\n");
    const auto quit = [] {
        calls.in_mutex_init = [] {
            cdbgp_print_to_important_channel(2, "ERROR", "M", "L", "f", "inside");
            cdbgp_quit();
        };
        cdbg_print_to_error_channel("outside");
    };
    // An emulator has a line of its own to say about such an end.
    EXPECT_EXIT(quit(), testing::KilledBySignal(SIGABRT), testing::Not(testing::HasSubstr("side")));
}

// Where the first start fails, that thread's first message is lost, and one of those that waited starts it.
// The streams take one byte at a time: only the lock keeps a message together. Two channels share each.
TEST(start_up, many_first_prints_at_once_start_it_once_and_stay_whole) {
    constexpr int messages = 20;
    for (const auto& [threads, failures] : {std::pair(2, 0), {2, 1}, {8, 0}, {8, 1}, {32, 0}, {32, 1}}) {
        const outcome seen = run_apart([&, threads = threads, failures = failures] {
            bytewise = true;
            const int mutexes = calls.mutexes;
            calls.failing_mutex_init = failures;
            // The first of them is slow, so that the others come while it is at it.
            calls.in_mutex_init = [] { std::this_thread::sleep_for(std::chrono::milliseconds(20)); };
            std::barrier start(threads);
            std::vector<std::thread> running;
            for (int i = 0; i < threads; ++i) {
                running.emplace_back([&start, i] {
                    start.arrive_and_wait();
                    for (int message = 0; message < messages; ++message) {
                        cdbgp_print_to_important_channel(static_cast<std::uint32_t>(i % 4), "F", "M", "L",
                                                         "f", "%d %d", i, message);
                    }
                });
            }
            std::for_each(running.begin(), running.end(), [](std::thread& thread) { thread.join(); });
            EXPECT_EQ(calls.mutexes - mutexes, start_up_mutexes);
        });
        const std::regex message("==>\\[F\\] \\(.*\\) M: L f\n([0-9]+ [0-9]+)\n");
        std::set<std::string> bodies;
        std::ptrdiff_t size = 0;
        for (const std::string& text : {seen.output, seen.error}) {
            for (std::sregex_iterator i(text.begin(), text.end(), message), end; i != end; ++i) {
                EXPECT_TRUE(bodies.insert((*i)[1]).second);
                size += i->length();
            }
        }
        EXPECT_EQ(size, std::ssize(seen.output + seen.error)) << seen.output << seen.error;
        EXPECT_EQ(std::ssize(bodies), threads * messages - failures);
    }
}

// What became of a child that prints on every channel, and asks for a setting: its exit status, which is what
// it learned of the setting's length, or minus the signal that ended it.
int fate_of_child() {
    const pid_t child = fork();
    if (child == 0) {
        alarm(20);
        const std::int32_t length = cdbg_env_get("SETTING", nullptr, 0);
        for (std::uint32_t channel = 0; channel < CDBGP_CHANNEL_COUNT; ++channel) {
            cdbgp_print_to_important_channel(channel, "F", "M", "L", "f", "child");
        }
        _exit(length + 1);
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

TEST(forks, a_child_prints_unless_another_thread_was_at_it) {
    const auto children = [](const outcome& seen) {
        const std::regex message("M: L f\nchild\n");
        const std::string text = seen.output + seen.error;
        return std::distance(std::sregex_iterator(text.begin(), text.end(), message), std::sregex_iterator());
    };
    const outcome quiet = run_apart([] {
        const settings some({"VEXA_SETTING=1"});
        calls.failing_mutex_init = 1;
        cdbg_print_to_error_channel("lost, and a child starts for itself");
        EXPECT_EQ(fate_of_child(), 2);
        cdbg_print_to_error_channel("first");
        EXPECT_EQ(fate_of_child(), 2);
    });
    EXPECT_EQ(children(quiet), 8) << quiet.output << quiet.error;
    // Each channel's slot in turn, and each lock, as another thread would hold it.
    for (int held = 0; held < 8; ++held) {
        const outcome seen = run_apart([held] {
            const settings some({"VEXA_SETTING=1"});
            atfork_fails = held % 2 == 0;
            calls.failing_mutex_init = 1;
            cdbg_print_to_error_channel("lost, and what failed is tried again");
            cdbg_print_to_error_channel("first");
            cdbgp_channel_handle handle = {};
            std::uint32_t size = 0;
            if (held < 4) {
                cdbgp_channel_lock(&handle, &size, &cdbgp_channels[held]);
            } else if (held < 6) {
                osup_mutex_lock(osup_mutex_static_get(static_cast<std::uint32_t>(held) - 3));
            } else {
                cutils_ring_buffer& ring = cdbgp_channels[0].ring;
                pthread_mutex_lock(held == 6 ? &ring.read_commit_lock : &ring.write_commit_lock);
            }
            EXPECT_EQ(fate_of_child(), 0);
        });
        EXPECT_EQ(seen.output + seen.error, "first\n") << held;
    }
    // And with threads that print, a few messages for each child: what they print must stay readable on a
    // slow machine. Not all children go without.
    const outcome busy = run_apart([] {
        const settings some({"VEXA_SETTING=1"});
        bytewise = true;
        constexpr int messages = 80;
        std::atomic<bool> stop = false;
        std::atomic<int> left = 0;
        std::vector<std::thread> threads;
        for (std::uint32_t channel = 0; channel < CDBGP_CHANNEL_COUNT; ++channel) {
            threads.emplace_back([&stop, &left, channel] {
                while (!stop) {
                    if (left > 0 && left.fetch_sub(1) > 0) {
                        cdbgp_print_to_important_channel(channel, "F", "M", "L", "f", "parent");
                    }
                }
            });
        }
        for (int i = 0; i < 40; ++i) {
            left = messages;
            while (left > messages - 4) {
                std::this_thread::yield();
            }
            const int fate = fate_of_child();
            EXPECT_TRUE(fate == 0 || fate == 2) << fate;
        }
        stop = true;
        std::for_each(threads.begin(), threads.end(), [](std::thread& thread) { thread.join(); });
        take_log();
        EXPECT_EQ(fate_of_child(), 2);
    });
    EXPECT_GE(children(busy), 4);
}

}  // namespace
