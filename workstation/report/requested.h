// What a session was asked to record, which its trace tells, against what it got.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "workstation/report/trace_file.h"

namespace qel::vexa::report {

// Collects counters that configs ask for and those that are described.
class requested_counters {
public:
    // A TraceConfig. What is malformed in it is passed over.
    void add_config(std::string_view config);
    void add_described(const std::vector<counter_description>& counters);

    // In words, what was asked for and is described nowhere. Nothing while no description is known at all.
    std::vector<std::string> missing() const;

private:
    std::set<std::uint32_t> ids_;
    std::set<std::string> names_;  // in the config they can be patterns; those are not looked at
    std::set<std::uint32_t> described_ids_;
    std::set<std::string> described_names_;
};

}  // namespace qel::vexa::report
