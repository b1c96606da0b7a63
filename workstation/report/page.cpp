#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <numeric>
#include <ostream>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "workstation/report/base64.h"
#include "workstation/report/by_frame.h"
#include "workstation/report/compare.h"
#include "workstation/report/json_values.h"
#include "workstation/report/page_levels.h"
#include "workstation/report/page_parts.h"
#include "workstation/report/writers.h"

namespace qel::vexa::report {

namespace {

// A JSON text that may stand in a script element: nothing in it ends the element.
std::string script_text(std::string_view text) {
    std::string result = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            result += '\\';
            result += c;
        } else if (c == '<' || static_cast<unsigned char>(c) < 0x20) {
            constexpr const char* digits = "0123456789abcdef";
            result += "\\u00";
            result += digits[static_cast<unsigned char>(c) >> 4];
            result += digits[c & 0xf];
        } else {
            result += c;
        }
    }
    return result + '"';
}

// The same of any value: a '<' stands in texts alone.
std::string script_value(const nlohmann::ordered_json& value) {
    std::string result;
    for (const char c : json_text(value, -1)) {
        result += c == '<' ? "\\u003c" : std::string(1, c);
    }
    return result;
}

// Numbers as base64 of their bytes: half the size of their digits, and quick to read.
template <typename Number>
std::string base64_numbers(const std::vector<Number>& numbers) {
    return '"' +
           base64({reinterpret_cast<const std::uint8_t*>(numbers.data()), numbers.size() * sizeof(Number)}) +
           '"';
}

// One number of each bin; not-a-number where a bin has no value.
template <typename Number>
std::string numbers_of(const counter_series& series, std::size_t count, Number number) {
    constexpr double limit = std::numeric_limits<float>::max();
    std::vector<float> result;
    for (std::size_t i = 0; i < count; ++i) {
        const bool is_there = i < series.bins.size() && series.bins[i].count != 0;
        result.push_back(is_there ? static_cast<float>(std::clamp(number(series.bins[i]), -limit, limit))
                                  : std::numeric_limits<float>::quiet_NaN());
    }
    return base64_numbers(result);
}

// A ratio's expression over the sums of what the page holds, in the order in which it is worked out: numbers,
// counters as "#ID", and behind its two operands each of "+", "-", "*", "/" and "max".
void write_formula(std::ostream& out, const sequence_summary& summary, const counter_series& series) {
    static constexpr const char* operations[] = {"+", "-", "*", "/", "max"};
    if (series.expression.empty()) {
        return;
    }
    const char* separator = ",\"formula\":[";
    for (const formula::step& step : series.expression.steps()) {
        out << std::exchange(separator, ",");
        const counter_series* const operand =
            step.what == formula::action::counter ? summary.find(step.id) : nullptr;
        if (step.what == formula::action::number) {
            out << exact_number(step.number);
        } else if (operand != nullptr && operand->kind == counter_kind::constant) {
            out << exact_number(operand->total.most);
        } else if (operand != nullptr) {
            out << "\"#" << step.id << '"';
        } else {
            out << '"' << operations[static_cast<int>(step.what) - static_cast<int>(formula::action::add)]
                << '"';
        }
    }
    out << ']';
}

void write_series(std::ostream& out, const counter_series& series, const sequence_summary& summary) {
    const counter_description& counter = series.counter;
    out << "{\"id\":" << counter.id << ",\"name\":" << script_text(counter.name)
        << ",\"description\":" << script_text(counter.description)
        << ",\"unit\":" << script_text(counter.unit()) << ",\"block\":" << script_text(series.block)
        << ",\"selected\":" << (counter.select_by_default ? "true" : "false") << R"(,"kind":")"
        << kind_name(series.kind) << R"(","weighting":")" << weighting_name(series.weighed) << R"(","count":)"
        << series.total.count;
    if (const auto figures = figures_of(summary, series, amount_form::per_sample)) {
        out << ",\"value\":" << exact_number(figures->value) << ",\"p50\":" << exact_number(figures->p50)
            << ",\"p95\":" << exact_number(figures->p95) << ",\"p99\":" << exact_number(figures->p99);
        if (series.kind == counter_kind::amount) {
            out << ",\"total\":" << exact_number(*summary.value(series))
                << ",\"seconds\":" << exact_number(series.duration());
        }
        write_formula(out, summary, series);
        const std::size_t bins = summary.bin_times.size();
        out << ",\"min\":" << exact_number(series.total.least)
            << ",\"mean\":" << exact_number(series.total.mean())
            << ",\"max\":" << exact_number(series.total.most)
            << ",\"means\":" << numbers_of(series, bins, [](const value_range& bin) { return bin.mean(); });
        if (summary.samples_per_bin > 1) {
            out << ",\"mins\":" << numbers_of(series, bins, [](const value_range& bin) { return bin.least; })
                << ",\"maxs\":" << numbers_of(series, bins, [](const value_range& bin) { return bin.most; });
        }
        if (series.weighed != weighting::exact && !series.weights.empty()) {
            std::vector<double> weights(bins);
            for (std::size_t i = 0; i < series.weights.size(); ++i) {
                weights[i] = series.weights[i].weight;
            }
            out << ",\"weights\":" << base64_numbers(weights);
        }
    }
    out << '}';
}

// Which frames the page shows: of too many the longest, and those of the lists.
std::vector<bool> shown_frames(const page_source& source) {
    const std::span<const frame> frames = source.frames;
    std::vector<bool> result(frames.size(), frames.size() <= most_page_frames);
    if (frames.size() <= most_page_frames) {
        return result;
    }
    std::vector<std::size_t> places(frames.size());
    std::iota(places.begin(), places.end(), 0);
    const auto last = places.begin() + most_page_frames;
    std::nth_element(places.begin(), last, places.end(), [&frames](std::size_t left, std::size_t right) {
        return frames[left].end - frames[left].start > frames[right].end - frames[right].start;
    });
    std::for_each(places.begin(), last, [&result](std::size_t place) { result[place] = true; });
    // They are the same for each sequence.
    if (source.contrasts != nullptr && !source.contrasts->empty()) {
        for (const layer_contrast& layer : source.contrasts->front()) {
            for (const std::size_t place : layer.longest) {
                result[place] = true;
            }
        }
    }
    return result;
}

// The layers, and of each sequence the contrasts of its layers, in the same order; in the list, times in
// seconds from the page's time 0: [start, end, expected end or 0, place of the layer, jank, 1 if dropped],
// and behind frames that are left out the number in the layer.
void write_frames(std::ostream& out, const page_source& source, std::uint64_t origin) {
    struct shown_layer {
        std::string_view name;
        std::size_t frames = 0;
        std::size_t last_shown = 0;
    };
    std::vector<shown_layer> layers;
    std::map<std::string_view, std::size_t> places;
    std::string list;
    const auto seconds = [origin](std::uint64_t time) {
        return exact_number((static_cast<double>(time) - static_cast<double>(origin)) / 1e9);
    };
    const std::vector<bool> is_shown = shown_frames(source);
    for (std::size_t i = 0; i < source.frames.size(); ++i) {
        const frame& one = source.frames[i];
        const auto [entry, is_new] = places.try_emplace(one.layer, layers.size());
        if (is_new) {
            layers.push_back({.name = one.layer});
        }
        shown_layer& layer = layers[entry->second];
        ++layer.frames;
        if (!is_shown[i]) {
            continue;
        }
        list += (list.empty() ? "[" : ",\n[") + seconds(one.start) + ',' + seconds(one.end) + ',' +
                (one.expected_end == 0 ? "0" : seconds(one.expected_end)) + ',' +
                std::to_string(entry->second) + ',' + std::to_string(one.jank) +
                (one.is_dropped ? ",1" : ",0") +
                (layer.frames != layer.last_shown + 1 ? ',' + std::to_string(layer.frames) : "") + ']';
        layer.last_shown = layer.frames;
    }
    nlohmann::ordered_json names = nlohmann::ordered_json::array();
    for (const shown_layer& layer : layers) {
        names.push_back({{"name", layer.name}, {"frames", layer.frames}});
    }
    nlohmann::ordered_json contrasts = nlohmann::ordered_json::array();
    if (source.contrasts != nullptr) {
        const std::vector<std::size_t> numbers = numbers_of(source.frames);
        for (const std::vector<layer_contrast>& each : *source.contrasts) {
            contrasts.push_back(contrasts_in_json(each, numbers));
        }
    }
    out << R"(,"frames":{"layers":)" << script_value(names) << R"(,"reasons":)" << script_value(jank_reasons)
        << R"(,"contrasts":)" << script_value(contrasts) << R"(,"list":[)" << list << "]}";
}

// The sequences of a trace, with times in seconds from the origin.
void write_sequences(std::ostream& out, const page_source& source, std::uint64_t origin) {
    const char* separator = "";
    for (const auto& [from, summary] : source.sequences) {
        if (summary.samples == 0) {
            continue;
        }
        std::vector<double> times;
        for (const std::uint64_t time : summary.bin_times) {
            times.push_back(static_cast<double>(time - origin) / 1e9);
        }
        out << std::exchange(separator, ",") << "\n{\"file\":" << script_text(source.file)
            << ",\"number\":" << from.sequence << ",\"gpu\":" << from.gpu
            << ",\"gpuName\":" << script_text(summary.gpu_name) << ",\"samples\":" << summary.samples
            << ",\"samplesPerBin\":" << summary.samples_per_bin
            << ",\"first\":" << exact_number(static_cast<double>(summary.first - origin) / 1e9)
            << ",\"limits\":" << script_value(limits_in_json(summary))
            << ",\"times\":" << base64_numbers(times) << ",\"counters\":[";
        for (std::size_t i = 0; i < summary.series.size(); ++i) {
            out << (i == 0 ? "\n" : ",\n");
            write_series(out, summary.series[i], summary);
        }
        out << "]}";
    }
}

void write_data(std::ostream& out, const page_source& source, const page_comparison* compared) {
    const std::uint64_t origin = page_origin(source.sequences);
    std::vector<std::string> problems = source.problems;
    if (compared != nullptr) {
        const std::vector<std::string>& more = compared->after.problems;
        problems.insert(problems.end(), more.begin(), more.end());
    }
    out << "{\"file\":"
        << script_text(compared == nullptr ? source.file : source.file + " \u2192 " + compared->after.file)
        << ",\"size\":" << source.file_size << ",\"origin\":" << script_text(std::to_string(origin))
        << R"(,"amounts":")" << amount_form_names[static_cast<std::size_t>(source.amounts)]
        << R"(","problems":)" << script_value(problems) << R"(,"levels":{"packed":)"
        << (page_levels::are_packed ? "true" : "false") << ",\"steps\":" << page_levels::steps_per_step
        << ",\"samplesInRun\":" << page_levels::run_of_samples
        << ",\"stepsInRun\":" << page_levels::run_of_steps << "},\"sequences\":[";
    write_sequences(out, source, origin);
    if (compared != nullptr) {
        out << ',';
        write_sequences(out, compared->after, page_origin(compared->after.sequences));
        out << "],\"comparison\":" << script_value(comparison_in_json(compared->result)) << '}';
        return;
    }
    out << ']';
    write_frames(out, source, origin);
    out << '}';
}

}  // namespace

std::uint64_t page_origin(const std::map<counter_source, sequence_summary>& sequences) {
    std::uint64_t origin = std::numeric_limits<std::uint64_t>::max();
    for (const auto& [number, summary] : sequences) {
        if (summary.samples != 0) {
            origin = std::min(origin, summary.first);
        }
    }
    return origin;
}

std::size_t page_base_size(const std::map<counter_source, sequence_summary>& sequences, std::size_t frames) {
    constexpr std::size_t code = 150'000;
    constexpr std::size_t description = 1'000;
    constexpr std::size_t frame_line = 56;
    std::size_t size = code + std::min(frames, most_page_frames) * frame_line;
    for (const auto& [number, summary] : sequences) {
        // Three numbers of four bytes become 16 characters.
        size += summary.series.size() * (description + summary.bin_times.size() * 16);
    }
    return size;
}

void write_page(std::ostream& out, const page_source& source, const page_comparison* compared) {
    std::string_view rest = page_html;
    const auto write_up_to = [&out, &rest](std::string_view mark) {
        const std::size_t end = rest.find(mark);
        out << rest.substr(0, end);
        rest.remove_prefix(end + mark.size());
    };
    write_up_to("/* page.css */");
    out << page_css;
    write_up_to("/* data */");
    write_data(out, source, compared);
    write_up_to("/* levels */");
    for (const page_levels* levels :
         {source.levels, compared != nullptr ? compared->after.levels : nullptr}) {
        if (levels != nullptr) {
            levels->write(out);
        }
    }
    write_up_to("/* page.js */");
    out << page_js << rest;
}

}  // namespace qel::vexa::report
