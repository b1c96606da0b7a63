// Ready trace configs.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "workstation/command_line/catalogue.h"

namespace qel::vexa::counters {

struct recording {
    std::uint64_t period_ms = 10;   // between samples; from min_period_ms to max_period_ms
    std::uint64_t duration_s = 10;  // 0 records until the recorder is stopped
};
inline constexpr std::uint64_t min_period_ms = 1;
inline constexpr std::uint64_t max_period_ms = 1000;

// The text form of a config for the tracing service, as "perfetto --txt -c" takes it, that records these
// counters. Its comments say which GPUs it is for.
std::string trace_config(const command_line::gpu& gpu, const std::vector<command_line::counter>& counters,
                         const recording& how);

}  // namespace qel::vexa::counters
