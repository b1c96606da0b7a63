// What a running tracing service offers, as "perfetto --query-raw" gives it.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "workstation/protocol/counter_description.h"

namespace qel::vexa::protocol {

// A data source "gpu.counters".
struct counter_source {
    std::string producer;  // its name; empty when the service does not tell it
    std::vector<counter_description> counters;
};

// All such sources, in the order in which they were registered; nothing when the bytes are no state of a
// service.
std::optional<std::vector<counter_source>> read_counter_sources(std::string_view service_state);

// The counters of the first such source, and none where there is none.
std::vector<counter_description> read_offered_counters(std::string_view service_state);

}  // namespace qel::vexa::protocol
