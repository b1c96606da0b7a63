// The units of counters, numbered as in the tracing protocol's MeasureUnit.
#pragma once

#include <cstdint>

namespace qel::vexa::hwc {

// Every value stays below 128: a descriptor's writer stores a unit as one byte.
enum measure_unit : std::uint32_t {
    unit_none = 0,
    unit_byte = 7,
    unit_pixel = 26,
    unit_percent = 37,
    unit_primitive = 38,
    unit_fragment = 39,
    unit_instruction = 40,
};

}  // namespace qel::vexa::hwc
