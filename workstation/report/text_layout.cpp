#include "workstation/report/text_layout.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ostream>

namespace qel::vexa::report {

std::size_t display_width(std::string_view text) {
    return static_cast<std::size_t>(std::count_if(
        text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xc0U) != 0x80; }));
}

std::string padded(const std::string& text, std::size_t width) {
    const std::size_t shown = display_width(text);
    return shown < width ? text + std::string(width - shown, ' ') : text;
}

std::vector<std::string> wrapped(std::string_view text, std::size_t width) {
    std::vector<std::string> lines;
    while (display_width(text) > width) {
        std::size_t end = 0;
        std::size_t blank = 0;
        for (std::size_t shown = 0; end < text.size(); ++end) {
            const bool begins = (static_cast<unsigned char>(text[end]) & 0xc0U) != 0x80;
            if (begins && shown++ == width) {
                break;
            }
            blank = text[end] == ' ' ? end : blank;
        }
        blank = text[end] == ' ' ? end : blank;
        const std::size_t cut = blank != 0 ? blank : end;
        lines.emplace_back(text.substr(0, cut));
        text.remove_prefix(cut + (blank != 0 ? 1U : 0U));
    }
    lines.emplace_back(text);
    return lines;
}

std::string column_number(double value) {
    const double size = std::fabs(value);
    char text[32];
    if (value >= 999'999.5 || value <= -99'999.5 || (size != 0 && size < 0.0005)) {
        std::snprintf(text, sizeof text, "%.0e", value);
    } else if (size == std::round(size)) {
        std::snprintf(text, sizeof text, "%.0f", value);
    } else {
        const int decimals = size < 9.9995 ? 3 : size < 99.995 ? 2 : size < 999.95 ? 1 : 0;
        std::snprintf(text, sizeof text, "%.*f", decimals, value);
    }
    return text;
}

void write_line(std::ostream& out, std::string line) {
    line.erase(line.find_last_not_of(' ') + 1);
    out << line << '\n';
}

void write_wrapped(std::ostream& out, const std::string& text, std::size_t width, const std::string& indent) {
    std::string begin;
    for (const std::string& line : wrapped(text, width > indent.size() + 8 ? width - indent.size() : width)) {
        write_line(out, begin + line);
        begin = width > indent.size() + 8 ? indent : "";
    }
}

std::string right_aligned(const std::string& text, std::size_t width) {
    return std::string(width - std::min(width, display_width(text)), ' ') + text;
}

}  // namespace qel::vexa::report
