// A tracing service of a test's own, and its consumer.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/process.h"

namespace test_support {

// The text config of a session with these counters. The details are more fields of the counters' config and
// of the data source's. A duration of 0 is none. More data sources may follow.
std::string session_config(const std::vector<std::uint32_t>& ids, unsigned duration_ms,
                           const std::string& counter_details = "", const std::string& source_details = "");
std::string data_source_config(const std::vector<std::uint32_t>& ids, const std::string& counter_details = "",
                               const std::string& source_details = "");

// The real service, on sockets in a folder of its own.
class tracing_service {
public:
    tracing_service();
    ~tracing_service();
    tracing_service(const tracing_service&) = delete;
    tracing_service& operator=(const tracing_service&) = delete;

    // Kills the service and starts another one in its place.
    void restart();

    // What a producer or consumer needs to find it.
    std::vector<std::string> environment() const;

    // The state of the service, as its consumer prints it: the bytes of a TracingServiceState.
    std::string query() const;

    // Starts the recording of a session with this text config. The trace stands in the file when the process
    // ends; a config without a duration records until the process gets SIGTERM.
    std::unique_ptr<process> start_recording(const std::string& config, const std::string& trace_file) const;

    // Records a session of a fixed duration: the trace's bytes.
    std::string record(const std::string& config) const;

    // Records a session without a duration until the condition holds, which is given the trace's file.
    std::string record_until(const std::string& config,
                             const std::function<bool(const std::string&)>& is_enough) const;

    const temporary_folder folder;

private:
    std::unique_ptr<process> service_;
};

}  // namespace test_support
