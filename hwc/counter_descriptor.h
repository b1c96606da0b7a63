// One row of a counter table.
#pragma once

#include <cstdint>
#include <vector>

#include "hwc/saturating_double.h"

namespace qel::vexa::hwc {

class profiler;

// Works out a derived counter from one sample, laid out as hwc/profiler.h tells. Never fails; reads only.
using counter_evaluator = saturating_double(const profiler& context, const std::uint32_t* sample);

// Counter ids: a raw counter's id is its block class times 64 plus its offset in the block; then the GPU's
// cycle count; derived counters count up from the first derived id. Nothing has an id in between.
inline constexpr std::uint32_t counters_per_block = 64;
inline constexpr std::uint32_t gpu_cycles_id = 65535;
inline constexpr std::uint32_t first_derived_id = 65536;

struct vexa_counter_descriptor {
    std::uint32_t id;
    const char* name;                 // short, for display
    const char* description;          // one paragraph of help
    std::uint32_t numerator_units;    // a measure_unit
    std::uint32_t denominator_units;  // a measure_unit
    bool select_by_default;           // passed on to the tracing service, otherwise unused
    std::vector<std::uint32_t>
        dependencies;              // what the evaluator reads: distinct ids, in order of appearance
    counter_evaluator* evaluator;  // null in every row up to gpu_cycles_id
};

}  // namespace qel::vexa::hwc
