// A counter as its producer describes it, to the service before a session and in each trace.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace qel::vexa::protocol {

// The texts are valid UTF-8 without control characters.
struct counter_description {
    std::uint32_t id = 0;
    std::string name;
    std::string description;
    std::vector<std::uint32_t> numerator_units;  // numbered as in the protocol's MeasureUnit
    std::vector<std::uint32_t> denominator_units;
    bool select_by_default = false;
    std::string group;         // the first of those that its producer has put it in, or empty
    std::uint32_t gpu = 0;     // of those of a trace
    bool is_described = true;  // and not only an id in a sample

    bool operator==(const counter_description&) const = default;

    // "percent", "byte/pixel"; empty for a plain count.
    std::string unit() const;
};

// The same for units of any number, known or not.
std::string unit_text(const std::vector<std::uint32_t>& numerator,
                      const std::vector<std::uint32_t>& denominator);

// Adds the counters of a GpuCounterDescriptor. False when it is malformed, with those in front of the damage.
bool read_counter_descriptor(std::string_view bytes, std::vector<counter_description>& counters);

}  // namespace qel::vexa::protocol
