#include <nlohmann/json.hpp>
#include <ostream>
#include <utility>

#include "workstation/report/json_values.h"
#include "workstation/report/limits.h"
#include "workstation/report/writers.h"

namespace qel::vexa::report {

namespace {

using json = nlohmann::ordered_json;

// A counter's numbers in one form.
json numbers_of(const sequence_summary& summary, const counter_series& series, amount_form form) {
    const std::optional<counter_figures> figures = figures_of(summary, series, form);
    if (!figures) {
        return nullptr;
    }
    return {{"value", figures->value}, {"min", figures->least}, {"p50", figures->p50},
            {"p95", figures->p95},     {"p99", figures->p99},   {"max", figures->most}};
}

json counter_of(const sequence_summary& summary, const counter_series& series, amount_form form) {
    const bool is_amount = series.kind == counter_kind::amount;
    json result{{"id", series.counter.id},       {"name", series.counter.name},
                {"block", series.block},         {"kind", kind_name(series.kind)},
                {"unit", series.counter.unit()}, {"selected", series.counter.select_by_default},
                {"count", series.total.count},   {"weighting", weighting_name(series.weighed)}};
    if (is_amount) {
        result["shownUnit"] = unit_in_words(series.counter, form == amount_form::per_second);
    }
    if (const json numbers = numbers_of(summary, series, form); !numbers.is_null()) {
        result.update(numbers);
    }
    if (is_amount) {
        const auto value = [&](amount_form wanted) -> json {
            const std::optional<counter_figures> figures = figures_of(summary, series, wanted);
            return figures ? json(figures->value) : json(nullptr);
        };
        result["perSample"] = value(amount_form::per_sample);
        result["perSecond"] = value(amount_form::per_second);
        result["total"] = value(amount_form::total);
    }
    return result;
}

}  // namespace

json limits_in_json(const sequence_summary& summary) {
    const auto limits = limits_of(summary);
    if (!limits) {
        return nullptr;
    }
    json result = json::array();
    for (const limit& found : *limits) {
        result.push_back({{"topic", found.rule->topic},
                          {"finding", limit_text(found)},
                          {"counter", found.rule->counter},
                          {"value", found.value},
                          {"threshold", found.rule->threshold},
                          {"advice", found.advice}});
    }
    return result;
}

std::string json_text(const json& value, int indent) {
    return value.dump(indent, ' ', false, json::error_handler_t::replace);
}

void write_json(std::ostream& out, const page_source& source) {
    json result{{"version", 1},
                {"file", source.file},
                {"size", source.file_size},
                {"amounts", amount_form_names[static_cast<std::size_t>(source.amounts)]},
                {"percentileError", value_histogram::largest_error},
                {"problems", source.problems},
                {"sequences", json::array()},
                {"frames", json::array()}};
    for (const frame_layer& layer : layers_of(source.frames)) {
        result["frames"].push_back({{"layer", layer.name},
                                    {"frames", layer.frames},
                                    {"late", layer.late},
                                    {"longestMs", static_cast<double>(layer.longest) / 1e6}});
    }
    for (const auto& [from, summary] : source.sequences) {
        if (summary.samples == 0) {
            continue;
        }
        const auto nanoseconds = static_cast<double>(summary.last() - summary.first);
        json one{{"number", from.sequence},
                 {"gpu", from.gpu},
                 {"gpuName", summary.gpu_name},
                 {"known", summary.is_known},
                 {"samples", summary.samples},
                 {"firstNs", summary.first},
                 {"lastNs", summary.last()},
                 {"periodSeconds", summary.samples > 1
                                       ? json(nanoseconds / 1e9 / static_cast<double>(summary.samples - 1))
                                       : json(nullptr)},
                 {"counters", json::array()}};
        for (const counter_series& series : summary.series) {
            one["counters"].push_back(counter_of(summary, series, source.amounts));
        }
        if (json limits = limits_in_json(summary); !limits.is_null()) {
            one["limits"] = std::move(limits);
        }
        result["sequences"].push_back(std::move(one));
    }
    out << json_text(result, 1) << '\n';
}

}  // namespace qel::vexa::report
