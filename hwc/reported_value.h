// A counter's value as a trace has it.
#pragma once

#include <algorithm>
#include <cstdint>

#include "hwc/measure_unit.h"
#include "hwc/profiler.h"

namespace qel::vexa::hwc {

inline constexpr double full_percent = 100.0;

// Percentages stay within 0 and 100, and no derived counter is below zero. The sample is as
// get_value_for_counter wants it.
inline double reported_value(const profiler& context, const std::uint32_t* sample,
                             const vexa_counter_descriptor& row) {
    double value = context.get_value_for_counter(sample, row).value();
    if (row.numerator_units == unit_percent) {
        value = std::clamp(value, 0.0, full_percent);
    }
    return row.evaluator != nullptr ? std::max(value, 0.0) : value;
}

}  // namespace qel::vexa::hwc
