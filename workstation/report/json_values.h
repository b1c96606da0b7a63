// What stands in more than one of the outputs that are JSON.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "workstation/report/summary.h"

namespace qel::vexa::report {

struct layer_contrast;

// What limits the workload; null for a GPU that is not in the catalogue.
nlohmann::ordered_json limits_in_json(const sequence_summary& summary);

// What the longest frames of each layer have in common. Frames are told by their numbers.
nlohmann::ordered_json contrasts_in_json(const std::vector<layer_contrast>& layers,
                                         const std::vector<std::size_t>& numbers);

// A value as text, with so many spaces for each level, or in one line for -1. Bytes of names that are not
// UTF-8 are replaced.
std::string json_text(const nlohmann::ordered_json& value, int indent);

}  // namespace qel::vexa::report
