#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "workstation/report/writers.h"

namespace qel::vexa::report {

std::string short_number(double value) {
    const struct {
        double least;
        double scale;
        const char* suffix;
    } steps[] = {{1e12, 1e12, " T"}, {1e9, 1e9, " G"}, {1e6, 1e6, " M"}, {1e4, 1e3, " k"}};
    constexpr double most = 1e16;
    char text[32];
    // The steps are those of what is shown: 9999.6 is 10 k.
    std::snprintf(text, sizeof text, "%.4g", value);
    const double size = std::fabs(std::strtod(text, nullptr));
    if (size >= most) {
        std::snprintf(text, sizeof text, "%.3g", value);
        return text;
    }
    for (const auto& step : steps) {
        if (size >= step.least) {
            std::snprintf(text, sizeof text, "%.4g%s", value / step.scale, step.suffix);
            return text;
        }
    }
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
