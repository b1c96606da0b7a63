#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <iomanip>
#include <ostream>
#include <sstream>
#include <string_view>
#include <vector>

#include "workstation/report/compare.h"
#include "workstation/report/limits.h"
#include "workstation/report/text_layout.h"
#include "workstation/report/writers.h"

namespace qel::vexa::report {

namespace {

constexpr std::size_t number_width = 7;
constexpr std::size_t unlimited = 1000;  // the width where lines may be as long as they want
constexpr std::size_t least_name_width = 16;
constexpr std::size_t good_name_width = 30;
constexpr std::size_t most_name_width = 60;
constexpr std::size_t least_chart_width = 8;
constexpr std::size_t most_chart_width = 60;

// A counter over time. A percentage fills its column at 100; everything else at its own maximum.
std::string chart(const sequence_summary& summary, const counter_series& series, std::size_t width,
                  chart_style style) {
    static constexpr std::array<std::string_view, 8> blocks = {"\u2581", "\u2582", "\u2583", "\u2584",
                                                               "\u2585", "\u2586", "\u2587", "\u2588"};
    static constexpr std::array<std::string_view, 8> letters = {"_", ".", ":", "-", "=", "+", "*", "#"};
    const auto& steps = style == chart_style::blocks ? blocks : letters;
    const std::size_t bin_count = summary.bin_times.size();
    const std::size_t columns = std::min(width, bin_count);
    std::vector<std::optional<double>> heights(columns);
    double top = 0;
    double bottom = 0;
    for (std::size_t i = 0; i < columns; ++i) {
        const std::size_t first = i * bin_count / columns;
        const std::size_t end = (i + 1) * bin_count / columns;
        heights[i] = summary.value(series, first, end);
        if (heights[i] && series.kind == counter_kind::amount) {
            // Neighbouring columns can stand for different numbers of samples.
            std::uint64_t count = 0;
            for (std::size_t bin = first; bin < std::min(end, series.bins.size()); ++bin) {
                count += series.bins[bin].count;
            }
            *heights[i] /= static_cast<double>(count);
        }
        top = std::max(top, heights[i].value_or(0));
        bottom = std::min(bottom, heights[i].value_or(0));
    }
    if (series.counter.unit() == "percent") {
        top = 100;
    }
    std::string result;
    for (const std::optional<double>& height : heights) {
        if (!height) {
            result += ' ';
            continue;
        }
        const double share = top > bottom ? (*height - bottom) / (top - bottom) : 0;
        const auto step = static_cast<std::size_t>(std::clamp(share, 0.0, 1.0) * 7.999);
        result += steps[step];
    }
    return result;
}

bool is_estimate(const counter_series& series) {
    return series.kind == counter_kind::ratio && series.weighed != weighting::exact;
}

// A column of numbers. Those that stand first here stay longest when the terminal is narrow.
struct number_column {
    std::string_view title;
    double counter_figures::*number;
    std::size_t place;  // from left to right
};
std::vector<number_column> columns_for(amount_form form, std::size_t room) {
    static constexpr number_column all[] = {
        {"", &counter_figures::value, 0},  {"max", &counter_figures::most, 5},
        {"p95", &counter_figures::p95, 3}, {"min", &counter_figures::least, 1},
        {"p50", &counter_figures::p50, 2}, {"p99", &counter_figures::p99, 4},
    };
    const std::size_t count = form == amount_form::total ? 1 : std::size(all);
    std::vector<number_column> result(all, all + std::clamp<std::size_t>(room / number_width, 1, count));
    result[0].title = form == amount_form::total ? "total" : "mean";
    std::sort(result.begin(), result.end(),
              [](const number_column& a, const number_column& b) { return a.place < b.place; });
    return result;
}

struct table_line {
    const counter_series* series;
    std::optional<counter_figures> figures;
    std::string unit;
    double scale = 1;
};

std::string head_of(const sequence_summary& summary, std::size_t shown, amount_form form) {
    const std::size_t count = summary.series.size();
    std::ostringstream head;
    head << count << (count == 1 ? " counter" : " counters");
    if (shown < count) {
        head << ", " << shown << " shown, which are selected by default (--all: all)";
    }
    head << "; " << summary.samples << (summary.samples == 1 ? " sample" : " samples");
    if (summary.samples > 1) {
        const auto nanoseconds = static_cast<double>(summary.last() - summary.first);
        head << std::fixed << std::setprecision(3) << " over " << nanoseconds / 1e9 << " s, one every "
             << nanoseconds / 1e6 / static_cast<double>(summary.samples - 1) << " ms";
    }
    head << (form == amount_form::per_sample   ? "; amounts are per sample"
             : form == amount_form::per_second ? "; amounts are per second"
                                               : "; amounts are totals");
    return head.str();
}

void write_limits(std::ostream& out, const sequence_summary& summary, const terminal_options& options) {
    const std::optional<std::vector<limit>> limits = limits_of(summary);
    if (!limits) {
        return;
    }
    const std::size_t width = options.width != 0 ? options.width : sentence_width;
    out << '\n'
        << (options.bold_headings ? "\x1b[1m" : "") << "What limits this"
        << (options.bold_headings ? "\x1b[0m" : "") << '\n';
    if (limits->empty()) {
        out << " Nothing stands out.\n";
    }
    for (const limit& found : *limits) {
        write_wrapped(out, " " + limit_text(found) + ". " + found.advice, width, "   ");
    }
}

void write_sequence(std::ostream& out, const std::string& title, const sequence_summary& summary,
                    const terminal_options& options) {
    const bool selection_only = !options.all && shows_selection_only(summary);
    std::vector<table_line> lines;
    std::size_t name_width = std::string_view("counter").size();
    std::size_t unit_width = std::string_view("unit").size();
    std::size_t shown = 0;
    std::string constants;
    bool has_estimates = false;
    for (const counter_series& series : summary.series) {
        if (selection_only && !series.counter.select_by_default) {
            continue;
        }
        ++shown;
        table_line line{
            .series = &series, .figures = figures_of(summary, series, options.amounts), .unit = {}};
        const bool is_per_second =
            series.kind == counter_kind::amount && options.amounts == amount_form::per_second;
        const short_unit unit = short_unit_of(unit_in_words(series.counter, is_per_second), series.kind,
                                              line.figures ? line.figures->value : 0);
        if (series.kind == counter_kind::constant && line.figures) {
            constants += (constants.empty() ? "" : ", ") + series.counter.name + " " +
                         column_number(line.figures->value) + (unit.text.empty() ? "" : " ") + unit.text;
            continue;
        }
        line.unit = unit.text;
        line.scale = unit.scale;
        has_estimates = has_estimates || is_estimate(series);
        name_width = std::max(name_width, display_width(series.counter.name));
        unit_width = std::max(unit_width, display_width(line.unit));
        lines.push_back(std::move(line));
    }
    const std::size_t width = options.width != 0 ? options.width : unlimited;
    write_wrapped(out, title + head_of(summary, shown, options.amounts), width, "");

    const bool has_chart = options.charts != chart_style::none && summary.bin_times.size() > 1;
    // Numbers need room first, down to a narrow column of names; what is left goes to the names, then to
    // charts.
    const std::size_t fixed = std::min(1 + unit_width + 1, width);
    const std::size_t least_name = std::min(name_width, least_name_width);
    const std::vector<number_column> columns =
        columns_for(options.amounts, width - fixed > least_name ? width - fixed - least_name : 0);
    const std::size_t taken = fixed + columns.size() * number_width;
    const std::size_t rest = width > taken ? width - taken : 1;
    const bool chart_fits = has_chart && rest > std::min(name_width, good_name_width) + least_chart_width;
    name_width =
        std::min({name_width, most_name_width,
                  chart_fits ? std::max(good_name_width, rest / 2) : std::max<std::size_t>(rest, 4)});
    const std::size_t chart_width = chart_fits ? std::min(rest - name_width - 1, most_chart_width) : 0;

    const auto row = [&](std::string_view name, std::string_view unit, const auto& number_of,
                         const std::string& picture) {
        const std::vector<std::string> names = wrapped(name, name_width);
        std::string line = ' ' + padded(names[0], name_width) + ' ' + padded(std::string(unit), unit_width);
        for (const number_column& column : columns) {
            line += right_aligned(number_of(column), number_width);
        }
        write_line(out, line + ' ' + picture);
        for (std::size_t i = 1; i < names.size(); ++i) {
            write_line(out, ' ' + names[i]);
        }
    };
    if (!lines.empty()) {
        out << '\n';
        row(
            "counter", "unit", [](const number_column& column) { return std::string(column.title); }, "");
    }
    std::string_view block;
    for (const table_line& line : lines) {
        const counter_series& series = *line.series;
        if (block != series.block) {
            block = series.block;
            out << (options.bold_headings ? "\x1b[1m" : "") << block
                << (options.bold_headings ? "\x1b[0m" : "") << '\n';
        }
        if (!line.figures) {
            row(
                series.counter.name, line.unit, [](const number_column&) { return std::string("-"); }, "");
            continue;
        }
        row(
            series.counter.name, line.unit,
            [&](const number_column& column) {
                const bool has_mark = column.number == &counter_figures::value && is_estimate(series);
                return (has_mark ? "~" : "") + column_number((*line.figures).*column.number / line.scale);
            },
            chart_width == 0 ? "" : chart(summary, series, chart_width, options.charts));
    }
    const auto note = [&](const std::string& text) { write_wrapped(out, text, width, ""); };
    if (!constants.empty()) {
        note((lines.empty() ? "\n" : "") + constants);
    }
    if (has_estimates) {
        note("~ a weighted mean of samples: the trace lacks what this ratio is made of");
    }
    if (options.limits) {
        write_limits(out, summary, options);
    }
}

// A change in per cent.
std::string percent_text(double percent) {
    if (!std::isfinite(percent)) {
        return "new";
    }
    char text[32];
    std::snprintf(text, sizeof text, std::fabs(percent) < 9.95 ? "%+.1f %%" : "%+.0f %%", percent);
    return text;
}

void write_changes(std::ostream& out, const std::vector<const compared_counter*>& shown,
                   const terminal_options& options) {
    const std::size_t width = options.width != 0 ? options.width : unlimited;
    std::size_t name_width = std::string_view("counter").size();
    std::size_t unit_width = std::string_view("unit").size();
    std::vector<short_unit> units;
    for (const compared_counter* const counter : shown) {
        units.push_back(short_unit_of(counter->unit, counter->kind,
                                      std::max(std::fabs(counter->before), std::fabs(counter->after))));
        name_width = std::max(name_width, display_width(counter->name));
        unit_width = std::max(unit_width, display_width(units.back().text));
    }
    constexpr std::size_t change_width = 9;
    constexpr std::size_t interval_width = 20;
    const std::size_t fixed = 1 + 1 + unit_width + 2 * number_width + change_width;
    const std::size_t rest = width > fixed + 4 ? width - fixed : 4;
    const bool has_interval = rest > interval_width + least_name_width;
    name_width = std::min(name_width, has_interval ? rest - interval_width : rest);
    const auto row = [&](const std::string& name, const std::string& unit, const std::string& before,
                         const std::string& after, const std::string& change, const std::string& interval) {
        const std::vector<std::string> names = wrapped(name, name_width);
        write_line(out, ' ' + padded(names[0], name_width) + ' ' + padded(unit, unit_width) +
                            right_aligned(before, number_width) + right_aligned(after, number_width) +
                            right_aligned(change, change_width) +
                            (has_interval ? right_aligned(interval, interval_width) : ""));
        for (std::size_t i = 1; i < names.size(); ++i) {
            write_line(out, ' ' + names[i]);
        }
    };
    row("counter", "unit", "before", "after", "change", "95 % interval");
    for (std::size_t i = 0; i < shown.size(); ++i) {
        const compared_counter& counter = *shown[i];
        std::string interval = "-";
        if (counter.low && counter.before != 0) {
            const double unit = std::fabs(counter.before) / 100;
            interval = percent_text(*counter.low / unit) + " .. " + percent_text(*counter.high / unit);
        }
        row(counter.name, units[i].text, column_number(counter.before / units[i].scale),
            column_number(counter.after / units[i].scale),
            percent_text(counter.change_percent()) + (counter.is_changed ? "" : "?"), interval);
    }
}

}  // namespace

std::string change_text(const compared_counter& counter) {
    return percent_text(counter.change_percent());
}

void write_comparison(std::ostream& out, const comparison_output& what, const terminal_options& options) {
    const comparison& result = what.result;
    std::size_t changed = 0;
    std::size_t untested = 0;
    std::vector<const compared_counter*> shown;
    for (const compared_counter& counter : result.counters) {
        changed += counter.is_changed ? 1U : 0U;
        untested += counter.low ? 0U : 1U;
        if (counter.is_changed || options.all) {
            shown.push_back(&counter);
        }
    }
    const auto note = [&](const std::string& text) {
        write_wrapped(out, text, options.width != 0 ? options.width : unlimited, "  ");
    };
    note(std::to_string(result.counters.size()) + " counters compared, " + std::to_string(changed) +
         " changed by more than chance (level " + column_number(comparison_level * 100) +
         " % over all of them together); amounts are per second");
    if (untested != 0) {
        note(std::to_string(untested) + " counters have too few samples to tell a change from chance");
    }
    if (!shown.empty()) {
        out << '\n';
        write_changes(out, shown, options);
        if (options.all && changed < shown.size()) {
            note("? may be chance");
        }
    }
    const auto list = [&](const char* title, const std::vector<std::string>& names) {
        std::string text;
        for (const std::string& name : names) {
            text += (text.empty() ? title : ", ") + name;
        }
        if (!text.empty()) {
            note(text);
        }
    };
    list("Only before: ", result.only_before);
    list("Only after: ", result.only_after);
    for (const std::string& failure : what.failed) {
        note("Failed: " + failure);
    }
}

void write_summary(std::ostream& out, const std::map<counter_source, sequence_summary>& sequences,
                   const terminal_options& options) {
    bool is_first = true;
    for (const auto& [source, summary] : sequences) {
        if (summary.samples == 0) {
            continue;
        }
        std::string title;
        if (sequences.size() > 1) {
            title = "Sequence " + std::to_string(source.sequence) + ", GPU " + std::to_string(source.gpu);
        }
        if (!summary.gpu_name.empty()) {
            title += (title.empty() ? "" : ", ") + summary.gpu_name;
        }
        out << (is_first ? "" : "\n");
        write_sequence(out, title + (title.empty() ? "" : ": "), summary, options);
        is_first = false;
    }
}

}  // namespace qel::vexa::report
