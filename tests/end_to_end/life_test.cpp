// The library in programs that unload it, fork and exit while it is at work.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "tests/support/tracing_service.h"

namespace {

using test_support::eventually;
using test_support::process;
using test_support::process_setup;
using test_support::read_file;

// A thread that outlives the library is not told of its end: what would tell it is gone.
TEST(Life, UnloadsBesideThreadsAndForksAndLoadsAgain) {
    const test_support::temporary_folder folder;
    EXPECT_EQ(test_support::run({.command = {COUNTERFEED_LIFE_PROBE, COUNTERFEED_LIBRARY, "reload"},
                                 .environment = {},
                                 .preload = {},
                                 .output = folder.file("output"),
                                 .of_this_build = true}),
              0);
    EXPECT_EQ(read_file(folder.file("output")), "before 0 0 before 0 0 ");
}

TEST(Life, ForksAndExitsWhileItSamples) {
    const test_support::tracing_service service;
    const std::string fifo = service.folder.file("commands");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    process_setup setup =
        test_support::launcher_setup("id=0x9002", service.folder.file("output"), service.environment());
    setup.command = {COUNTERFEED_LIFE_PROBE, COUNTERFEED_LIBRARY, "start", fifo};
    process probe(setup);
    std::ofstream commands(fifo);
    ASSERT_TRUE(eventually([&] { return service.query().find("gpu.counters") != std::string::npos; }));

    const std::string trace = service.folder.file("trace");
    const auto recording = service.start_recording(
        test_support::session_config({65535}, 0) + " write_into_file: true file_write_period_ms: 100", trace);
    const auto grows = [&trace] {
        std::error_code none;
        const std::uintmax_t size = std::filesystem::file_size(trace, none);
        return eventually([&] {
            std::error_code ignored;
            return std::filesystem::exists(trace) &&
                   std::filesystem::file_size(trace, ignored) > (none ? 0 : size) + 1000;
        });
    };
    ASSERT_TRUE(grows());
    commands << 'f' << std::flush;
    EXPECT_TRUE(eventually([&] { return read_file(setup.output) == "0 "; })) << read_file(setup.output);
    EXPECT_TRUE(grows());
    commands << 'e' << std::flush;
    EXPECT_EQ(probe.wait(), 0) << read_file(setup.output);
    ::kill(recording->id(), SIGTERM);
    EXPECT_EQ(recording->wait(), 0);
}

}  // namespace
