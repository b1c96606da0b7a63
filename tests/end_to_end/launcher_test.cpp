// The library as it is shipped, in the launcher's hands: loading, exports, and start with and without a GPU.

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <regex>
#include <set>
#include <sstream>

#include "tests/support/elf_symbols.h"
#include "tests/support/process.h"

namespace {

using test_support::eventually;
using test_support::launcher_setup;
using test_support::process;
using test_support::process_setup;
using test_support::read_file;
using test_support::temporary_folder;

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> result;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        if (!line.empty()) {
            result.push_back(line);
        }
    }
    return result;
}

// On this machine the platform's log comes out at standard error.
TEST(Launcher, GivesUpAfterOneLogLineWithoutAGpu) {
#ifdef __ANDROID__
    GTEST_SKIP() << "the log goes to its own socket there, where log_test reads it";
#endif
    const temporary_folder folder;
    const std::string output = folder.file("output");
    const std::vector<std::string> environment = {"PERFETTO_PRODUCER_SOCK_NAME=" + folder.file("nobody")};
    for (const char* gpu : {"none", "id=0x7004", "id=0x0ff0"}) {
        EXPECT_EQ(test_support::run(launcher_setup(gpu, output, environment)), 1);
        const std::vector<std::string> lines = lines_of(read_file(output));
        ASSERT_EQ(lines.size(), 2U) << gpu;
        EXPECT_EQ(lines[0].rfind("counterfeed E ", 0), 0U);
        EXPECT_NE(lines[0].find(" Failed to register vexa_gpu_data_source"), std::string::npos);
        EXPECT_EQ(lines[1].find("counterfeed-launcher: " COUNTERFEED_LIBRARY " gave up: "), 0U);
    }
    process_setup setup = launcher_setup("none", output, {});
    const std::string launcher = setup.command[0];
    const struct {
        std::vector<std::string> words;
        int status;
        const char* said;
    } cases[] = {{{"/nonexistent.so"}, 1, "can't load the library: /nonexistent.so"},
                 {{COUNTERFEED_VIRTUAL_GPU}, 1, COUNTERFEED_VIRTUAL_GPU " is not the counter library: "},
                 {{}, 1, "libcounterfeed.so"},
                 {{"-h"}, 0, "Usage: "},
                 {{"--help"}, 0, "Usage: "},
                 {{"-V"}, 0, "counterfeed-launcher 0."},
                 {{"--version"}, 0, "counterfeed-launcher 0."},
                 {{"--walrus", "more"}, 2, "counterfeed-launcher: there is no such option: \"--walrus\""},
                 {{COUNTERFEED_LIBRARY, "more"}, 2, "one library at most: \"more\""}};
    for (const auto& [words, status, said] : cases) {
        setup.command = words;
        setup.command.insert(setup.command.begin(), launcher);
        EXPECT_EQ(test_support::run(setup), status) << said;
        EXPECT_NE(read_file(output).find(said), std::string::npos) << read_file(output);
    }
}

// An error message to a pipe that nobody reads any more does not end it.
TEST(Launcher, PrintsForNobody) {
    int pipe[2];
    ASSERT_EQ(::pipe(pipe), 0);
    ::close(pipe[0]);
    const int own_error = ::dup(STDERR_FILENO);
    ::dup2(pipe[1], STDERR_FILENO);
    const int status = test_support::run(launcher_setup("none", "", {}));
    ::dup2(own_error, STDERR_FILENO);
    ::close(own_error);
    ::close(pipe[1]);
    EXPECT_EQ(status, 1);
}

TEST(Launcher, ParksInSilenceWithoutAService) {
    const temporary_folder folder;
    const std::string output = folder.file("output"), seam = folder.file("seam");
    process running(launcher_setup(
        "", output, {"PERFETTO_PRODUCER_SOCK_NAME=" + folder.file("nobody"), "VIRTUAL_GPU_SEAM=" + seam}));
    EXPECT_TRUE(eventually([&] { return !read_file(seam).empty(); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    // Its first thread waits for nothing, without taking time.
    EXPECT_NE(read_file("/proc/" + std::to_string(running.id()) + "/stat").find(") S "), std::string::npos);
    EXPECT_TRUE(running.is_running());
    EXPECT_EQ(read_file(output), "");
}

// What the library exports is the whole of its interface: start, and what its clients' header declares.
TEST(Library, ExportsItsInterfaceAndNothingElse) {
    std::set<std::string> exports;
    for (const auto& [name, value] : test_support::elf_symbols(read_file(COUNTERFEED_LIBRARY), SHT_DYNSYM)) {
        exports.insert(name);
    }
    const std::string header = read_file(COUNTERFEED_CLIENT_HEADER);
    const std::regex operation("OSUP_API [^(]*\\b(osup_\\w+)\\(");
    std::set<std::string> expected = {"start"};
    for (std::sregex_iterator i(header.begin(), header.end(), operation), end; i != end; ++i) {
        expected.insert((*i)[1]);
    }
    EXPECT_GT(expected.size(), 30U);
    EXPECT_EQ(exports, expected);
}

// The order of the load-time initialisers, from a program that does no more than load the library.
TEST(Library, InitialisersRunInTheirOrder) {
    const temporary_folder folder;
    ASSERT_EQ(test_support::run({.command = {COUNTERFEED_LOAD_PROBE, COUNTERFEED_LIBRARY},
                                 .environment = {},
                                 .preload = {},
                                 .output = folder.file("output"),
                                 .of_this_build = true}),
              0)
        << read_file(folder.file("output"));
    const std::vector<std::string> lines = lines_of(read_file(folder.file("output")));
    const std::vector<std::string> expected = {"counter_tables", "product_tables", "current_callback",
                                               "library_handler"};
    ASSERT_GE(lines.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_NE(lines[i].find(expected[i]), std::string::npos) << lines[i];
    }
}

// What the unload probe prints.
std::string unload(const std::vector<std::string>& words, std::vector<std::string> environment = {}) {
    const temporary_folder folder;
    process_setup setup{.command = {COUNTERFEED_UNLOAD_PROBE, COUNTERFEED_LIBRARY},
                        .environment = std::move(environment),
                        .preload = {},
                        .output = folder.file("output"),
                        .of_this_build = true};
    setup.command.insert(setup.command.end(), words.begin(), words.end());
    const int status = test_support::run(setup);
    return read_file(setup.output) + (status == 0 ? "" : std::to_string(status));
}

// The probe's words: +A registers and -A deregisters a callback that prints A, *A another that prints (A).
// What stands behind the letter happens when the callback runs. The thread's word, a dot, comes last.
TEST(Library, UnloadRunsTheCallbacksBackwards) {
    const struct {
        std::vector<std::string> words;
        const char* printed;
    } cases[] = {
        {{}, "."},
        {{"+A", "+B", "+C"}, "CBA."},
        {{"+A", "*A", "+B", "+A", "-A", "-D"}, "B(A)."},
        {{"+A", "+A", "*A", "+B"}, "B(A)AA."},
        // Too late to stop A. D comes too late to be run, and is taken back.
        {{"+A", "+B-D", "+C-A+D"}, "CBA."},
    };
    for (const auto& c : cases) {
        for (const char* end : {"close", "exit"}) {
            std::vector<std::string> words = {end};
            words.insert(words.end(), c.words.begin(), c.words.end());
            // Loaded twice where it is closed: a second life of the library begins with nothing.
            const std::string printed = c.printed;
            EXPECT_EQ(unload(words), words[0] == "close" ? printed + printed : printed);
        }
    }
}

// From a callback, from the very end of the unload, and from the program's own exit after that, whether
// diagnostics is up by then or starts with it.
TEST(Library, PrintsAfterUnloadHasBegun) {
    const auto message = [](const char* core) {
        const std::string text =
            std::string("Unable to set requested CPU core ") + core + " for thread [probe].\n";
        return text + "6/vexa:" + text;
    };
    const std::string in_callback = "A" + message("49") + ".";
    const std::string at_end = "." + message("50");
    const std::string at_exit = ".~" + message("51");
    const struct {
        std::vector<std::string> words;
        std::string printed;
    } cases[] = {
        {{"close", "+A!1"}, in_callback + in_callback},
        {{"close", ".!2"}, at_end + at_end},
        {{"exit", "+A!1"}, in_callback},
        {{"exit", ".!2"}, at_end},
        {{"exit", "~!3"}, at_exit},
        {{"exit", "!0", "+A!1", ".!2", "~!3"},
         message("48") + "A" + message("49") + at_end + "~" + message("51")},
    };
    for (const auto& c : cases) {
        // What diagnostics holds it keeps, deliberately, also beyond the library's own end.
        EXPECT_EQ(unload(c.words, {"ASAN_OPTIONS=detect_leaks=0"}), c.printed);
    }
}

TEST(Library, FailureOfTheUnloadHooksIsFatal) {
    const std::string output = unload({"fail"});
    const std::regex report(
        "==>\\[ERROR\\] \\(probe\\) OSU: In file: osu/platform_dummy/vexa_osu_libhooks  line: [0-9]+ "
        "osup_init_unload_hooks\nFailed to init unload hook mutexes\n[^]*-6");
    EXPECT_TRUE(std::regex_match(output, report)) << output;
}

}  // namespace
