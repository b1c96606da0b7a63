#include "tests/support/tracing_service.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <filesystem>
#include <fstream>

namespace test_support {

namespace {

// A name that no other thread of the test gets.
std::string unused_file(const temporary_folder& folder, const char* kind) {
    static std::atomic<unsigned> count = 0;
    return folder.file(kind + std::to_string(count++));
}

}  // namespace

std::string session_config(const std::vector<std::uint32_t>& ids, unsigned duration_ms,
                           const std::string& counter_details, const std::string& source_details) {
    return "buffers { size_kb: 65536 } " +
           (duration_ms != 0 ? "duration_ms: " + std::to_string(duration_ms) : "") +
           data_source_config(ids, counter_details, source_details);
}

std::string data_source_config(const std::vector<std::uint32_t>& ids, const std::string& counter_details,
                               const std::string& source_details) {
    std::string result =
        " data_sources { config { name: \"gpu.counters\" gpu_counter_config { " + counter_details;
    for (const std::uint32_t id : ids) {
        result += " counter_ids: " + std::to_string(id);
    }
    return result + " } " + source_details + " } }";
}

tracing_service::tracing_service() {
    restart();
}

void tracing_service::restart() {
    // Before the service is killed: a producer that finds the socket of a dying service still open connects
    // to it, and the SDK never tries again.
    std::filesystem::remove(folder.file("producer"));
    std::filesystem::remove(folder.file("consumer"));
    service_.reset();
    service_ = std::make_unique<process>(process_setup{.command = {COUNTERFEED_TRACING_SERVICE "/traced"},
                                                       .environment = environment(),
                                                       .preload = {},
                                                       .output = folder.file("traced.log")});
    EXPECT_TRUE(eventually([this] { return std::filesystem::exists(folder.file("consumer")); }));
}

tracing_service::~tracing_service() = default;

std::vector<std::string> tracing_service::environment() const {
    return {"PERFETTO_PRODUCER_SOCK_NAME=" + folder.file("producer"),
            "PERFETTO_CONSUMER_SOCK_NAME=" + folder.file("consumer")};
}

std::string tracing_service::query() const {
    const std::string state = unused_file(folder, "state");
    const int status =
        run({.command = {"/bin/sh", "-c",
                         "exec " COUNTERFEED_TRACING_SERVICE "/perfetto --query-raw 2>/dev/null >" + state},
             .environment = environment(),
             .preload = {},
             .output = {}});
    return status == 0 ? read_file(state) : "";
}

std::unique_ptr<process> tracing_service::start_recording(const std::string& config,
                                                          const std::string& trace_file) const {
    const std::string config_file = unused_file(folder, "config");
    std::ofstream(config_file) << config;
    return std::make_unique<process>(process_setup{
        .command = {COUNTERFEED_TRACING_SERVICE "/perfetto", "--txt", "-c", config_file, "-o", trace_file},
        .environment = environment(),
        .preload = {},
        .output = unused_file(folder, "perfetto.log")});
}

std::string tracing_service::record(const std::string& config) const {
    const std::string trace_file = unused_file(folder, "trace");
    EXPECT_EQ(start_recording(config, trace_file)->wait(), 0);
    return read_file(trace_file);
}

std::string tracing_service::record_until(const std::string& config,
                                          const std::function<bool(const std::string&)>& is_enough) const {
    const std::string trace_file = unused_file(folder, "trace");
    const auto recording = start_recording(config, trace_file);
    EXPECT_TRUE(eventually([&] { return is_enough(trace_file); }));
    ::kill(recording->id(), SIGTERM);
    EXPECT_EQ(recording->wait(), 0);
    return read_file(trace_file);
}

}  // namespace test_support
