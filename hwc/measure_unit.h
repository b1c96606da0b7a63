// The units of counters, numbered and named as in the tracing protocol's MeasureUnit.
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

// The word for a unit, also for those that no counter here has but other producers' have: empty for no unit,
// null for a number without a meaning.
constexpr const char* unit_word(std::uint32_t unit) {
    constexpr const char* words[] = {
        "",          "bit",        "kilobit",     "megabit",     "gigabit",    "terabit",
        "petabit",   "byte",       "kilobyte",    "megabyte",    "gigabyte",   "terabyte",
        "petabyte",  "hertz",      "kilohertz",   "megahertz",   "gigahertz",  "terahertz",
        "petahertz", "nanosecond", "microsecond", "millisecond", "second",     "minute",
        "hour",      "vertex",     "pixel",       "triangle",    "milliwatt",  "watt",
        "kilowatt",  "joule",      "volt",        "ampere",      "celsius",    "fahrenheit",
        "kelvin",    "percent",    "primitive",   "fragment",    "instruction"};
    return unit < sizeof words / sizeof *words ? words[unit] : nullptr;
}

}  // namespace qel::vexa::hwc
