#include <charconv>
#include <cmath>

#include "workstation/report/writers.h"

namespace qel::vexa::report {

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
