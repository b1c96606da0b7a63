// Trace configs that record counters, and can be checked against the GPU that they are to be recorded on.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "workstation/command_line/catalogue.h"

namespace qel::vexa::command_line {

struct recording {
    std::uint64_t period_ms = 10;   // between samples; from min_period_ms to max_period_ms
    std::uint64_t duration_s = 10;  // 0 records until the recorder is stopped
};
inline constexpr std::uint64_t min_period_ms = 1;
inline constexpr std::uint64_t max_period_ms = 1000;
inline constexpr std::uint64_t max_duration_s = 604800;

// Which of the options below were there.
struct recording_given {
    bool period = false;
    bool duration = false;

    bool any() const { return period || duration; }
};

class options;
// --period and --duration.
void add_recording_options(options& table, recording& how, recording_given& given);

// --with-operands, which adds to what is recorded all that a report needs to work out its derived counters
// over a span of time.
void add_operands_option(options& table, bool& wanted);

// Does so, and says on standard error what it costs.
std::vector<counter> add_operands(const gpu& of, const std::vector<counter>& chosen, const recording& how);

// The text form of a config for the tracing service, as "perfetto --txt -c" takes it, that records these
// counters. Its comments say which GPUs it is for. The names of the counters stand beside their ids in a
// comment, and in the field for free text as well, so that they get into the trace.
std::string trace_config(const gpu& of, const std::vector<counter>& counters, const recording& how);

// The ids in a config in the text form, with the names that the comments behind them tell; empty for an id
// without one.
std::map<std::uint32_t, std::string> counters_in_config(const std::string& text);

// What is wrong with recording a config on a GPU, a sentence for each counter; nothing when its ids mean
// there what their names say.
std::vector<std::string> faults_of_config(const std::string& text, const gpu& on);

}  // namespace qel::vexa::command_line
