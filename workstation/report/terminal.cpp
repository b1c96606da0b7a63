#include <algorithm>
#include <array>
#include <cmath>
#include <iomanip>
#include <ostream>
#include <sstream>
#include <string_view>

#include "workstation/report/writers.h"

namespace qel::vexa::report {

namespace {

constexpr std::size_t number_width = 9;
constexpr std::size_t numbers_width = 3 * (number_width + 1);
constexpr std::size_t least_name_width = 20;
constexpr std::size_t least_chart_width = 8;
constexpr std::size_t good_chart_width = 20;
constexpr std::size_t most_chart_width = 60;

std::size_t display_width(std::string_view text) {
    return static_cast<std::size_t>(std::count_if(
        text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xc0U) != 0x80; }));
}

// The text in exactly so many columns.
std::string fit(std::string_view text, std::size_t width, bool may_use_dots) {
    if (display_width(text) <= width) {
        return std::string(text) + std::string(width - display_width(text), ' ');
    }
    const std::string_view dots = may_use_dots ? "\u2026" : "~";
    std::size_t end = 0;
    for (std::size_t shown = 0; end < text.size(); ++end) {
        const bool begins = (static_cast<unsigned char>(text[end]) & 0xc0U) != 0x80;
        if (begins && ++shown == width) {
            break;
        }
    }
    return std::string(text.substr(0, end)) + std::string(dots);
}

// The means over time. A percentage fills its column at 100; everything else at its own maximum.
std::string chart(const counter_series& series, std::size_t bin_count, std::size_t width, chart_style style) {
    static constexpr std::array<std::string_view, 8> blocks = {"\u2581", "\u2582", "\u2583", "\u2584",
                                                               "\u2585", "\u2586", "\u2587", "\u2588"};
    static constexpr std::array<std::string_view, 8> letters = {"_", ".", ":", "-", "=", "+", "*", "#"};
    const auto& steps = style == chart_style::blocks ? blocks : letters;
    const std::size_t columns = std::min(width, bin_count);
    std::vector<value_range> ranges(columns);
    for (std::size_t i = 0; i < series.bins.size(); ++i) {
        ranges[i * columns / bin_count].add(series.bins[i]);
    }
    double top = 0;
    double bottom = 0;
    for (const value_range& range : ranges) {
        if (range.count != 0) {
            top = std::max(top, range.mean());
            bottom = std::min(bottom, range.mean());
        }
    }
    if (series.counter.unit() == "percent") {
        top = 100;
    }
    std::string result;
    for (const value_range& range : ranges) {
        if (range.count == 0) {
            result += ' ';
            continue;
        }
        const double share = top > bottom ? (range.mean() - bottom) / (top - bottom) : 0;
        const auto step = static_cast<std::size_t>(std::clamp(share, 0.0, 1.0) * 7.999);
        result += steps[step];
    }
    return result;
}

void write_line(std::ostream& out, std::string line) {
    line.erase(line.find_last_not_of(' ') + 1);
    out << line << '\n';
}

void write_sequence(std::ostream& out, const sequence_summary& summary, const terminal_options& options) {
    std::vector<const counter_series*> shown;
    std::size_t name_width = std::string_view("counter").size();
    std::size_t unit_width = std::string_view("unit").size();
    std::size_t by_default = 0;
    for (const counter_series& series : summary.series) {
        by_default += series.counter.select_by_default ? 1U : 0U;
        if (options.all || series.counter.select_by_default) {
            shown.push_back(&series);
            name_width = std::max(name_width, display_width(series.counter.name));
            unit_width = std::max(unit_width, display_width(series.counter.unit()));
        }
    }
    std::ostringstream head;
    head << summary.series.size() << (summary.series.size() == 1 ? " counter, " : " counters, ") << by_default
         << " of them selected by default; " << summary.samples
         << (summary.samples == 1 ? " sample" : " samples");
    if (summary.samples > 1) {
        const auto nanoseconds = static_cast<double>(summary.last() - summary.first);
        head << std::fixed << std::setprecision(3) << " over " << nanoseconds / 1e9 << " s, one every "
             << nanoseconds / 1e6 / static_cast<double>(summary.samples - 1) << " ms";
    }
    out << head.str() << '\n';
    if (shown.empty()) {
        if (!summary.series.empty()) {
            out << "None of these counters is selected by default: --all shows them.\n";
        }
        return;
    }

    const bool has_chart = options.charts != chart_style::none && summary.bin_times.size() > 1;
    std::size_t chart_width = has_chart ? most_chart_width : 0;
    if (options.width != 0) {
        // Names give way first, down to a point; then the charts do.
        const std::size_t fixed = 1 + unit_width + numbers_width + (has_chart ? 1U : 0U) + 1;
        const std::size_t rest = options.width > fixed ? options.width - fixed : 0;
        const std::size_t good_chart = has_chart ? good_chart_width : 0;
        name_width =
            std::min(name_width, std::max(rest > good_chart ? rest - good_chart : 0, least_name_width));
        chart_width = std::min(chart_width, rest > name_width ? rest - name_width : 0);
        chart_width = chart_width < least_chart_width ? 0 : chart_width;
    }
    const bool dots = options.charts == chart_style::blocks;
    const auto row = [&](std::string_view name, std::string_view unit,
                         const std::array<std::string, 3>& numbers, const std::string& picture) {
        std::ostringstream line;
        line << ' ' << fit(name, name_width, dots) << ' ' << fit(unit, unit_width, dots);
        for (const std::string& number : numbers) {
            line << ' ' << std::setw(number_width) << number;
        }
        write_line(out, line.str() + ' ' + picture);
    };
    out << '\n';
    row("counter", "unit", {"minimum", "mean", "maximum"}, "");
    std::string_view block;
    for (const counter_series* series : shown) {
        if (block != series->block) {
            block = series->block;
            out << (options.bold_headings ? "\x1b[1m" : "") << block
                << (options.bold_headings ? "\x1b[0m" : "") << '\n';
        }
        const std::string unit = series->counter.unit();
        if (series->total.count == 0) {
            row(series->counter.name, unit, {"", "", "no values"}, "");
            continue;
        }
        row(series->counter.name, unit,
            {short_number(series->total.least), short_number(series->total.mean()),
             short_number(series->total.most)},
            chart_width == 0 ? "" : chart(*series, summary.bin_times.size(), chart_width, options.charts));
    }
}

}  // namespace

void write_summary(std::ostream& out, const std::map<std::uint32_t, sequence_summary>& sequences,
                   const terminal_options& options) {
    bool is_first = true;
    for (const auto& [number, summary] : sequences) {
        if (sequences.size() > 1) {
            out << (is_first ? "" : "\n") << "Sequence " << number << ": ";
        }
        write_sequence(out, summary, options);
        is_first = false;
    }
}

}  // namespace qel::vexa::report
