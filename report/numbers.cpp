#include <charconv>
#include <cmath>
#include <cstdio>

#include "report/writers.h"

namespace qel::vexa::report {

std::string short_number(double value) {
    const struct {
        double scale;
        const char* suffix;
    } steps[] = {{1e12, " T"}, {1e9, " G"}, {1e6, " M"}, {1e4, " k"}};
    char text[32];
    for (const auto& step : steps) {
        if (std::fabs(value) >= step.scale) {
            const double unit = step.scale == 1e4 ? 1e3 : step.scale;
            std::snprintf(text, sizeof text, "%.4g%s", value / unit, step.suffix);
            return text;
        }
    }
    std::snprintf(text, sizeof text, "%.4g", value);
    return text;
}

std::string exact_number(double value) {
    char text[64];
    // Counts stand as they are counted. The shortest form alone would write a million as "1e+06".
    const bool is_plain = value == 0 || (std::fabs(value) >= 1e-5 && std::fabs(value) < 1e15);
    const auto end = is_plain
                         ? std::to_chars(text, text + sizeof text, value, std::chars_format::fixed).ptr
                         : std::to_chars(text, text + sizeof text, value, std::chars_format::scientific).ptr;
    return {text, end};
}

}  // namespace qel::vexa::report
