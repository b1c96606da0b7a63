// What limits a workload, said in words from its counters.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "workstation/report/summary.h"

namespace qel::vexa::report {

// A counter that says something when it comes to a threshold.
struct limit_rule {
    std::string_view topic;    // of the rules of one topic the one that is farthest past its threshold counts
    std::string_view counter;  // by name
    std::string_view out_of;   // whose share it is in per cent, or empty when it is a ratio itself
    bool is_above;             // what is past the threshold
    double threshold;
    std::string_view finding;  // a sentence's beginning, which the numbers end
};

// All rules. Their counters are those of the catalogue; a rule whose counters a trace lacks says nothing.
extern const std::vector<limit_rule> limit_rules;

struct limit {
    const limit_rule* rule;
    double value;  // of the counter or its share
    std::string unit;
    std::string advice;  // what the counter's description says of such values
};

// Nothing for a GPU that is not in the catalogue, whose counters have other meanings; no limits when nothing
// stands out.
std::optional<std::vector<limit>> limits_of(const sequence_summary& summary);

// "Fragment queue is the busiest queue: 93.1 percent".
std::string limit_text(const limit& found);

}  // namespace qel::vexa::report
