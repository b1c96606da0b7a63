// GPU counters read back from a recorded trace, and the counters that a running service offers.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace qel::vexa::report {

// A counter as its producer describes it.
struct counter_description {
    std::uint32_t id = 0;
    std::string name;
    std::string description;
    std::vector<std::uint32_t> numerator_units;  // numbered as in the tracing protocol's MeasureUnit
    std::vector<std::uint32_t> denominator_units;
    bool select_by_default = false;

    // "percent", "byte/pixel"; empty for a plain count.
    std::string unit() const;
};

struct counter_value {
    std::uint32_t id;
    double value;
};

struct counter_sample {
    std::uint64_t timestamp;  // nanoseconds on the device's CLOCK_MONOTONIC_RAW
    std::vector<counter_value> values;
};

// What one sampling thread wrote. A session also receives what its neighbours write, each on a sequence of
// its own.
struct counter_sequence {
    std::vector<counter_description> counters;  // in the order in which the samples have them
    std::vector<counter_sample> samples;
};

// The sequences of a recorded trace, by the number that the service gave them. A trace that was cut short
// gives what is whole of it. Nothing when the bytes are not a trace at all.
std::optional<std::map<std::uint32_t, counter_sequence>> read_counters(const std::string& trace);

// The counters of the first "gpu.counters" data source in the state of a service, as its query gives it.
std::vector<counter_description> read_offered_counters(const std::string& service_state);

// A file's bytes; nothing when it can't be read.
std::optional<std::string> read_file(const char* path);

}  // namespace qel::vexa::report
