#include "workstation/report/limits.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

namespace qel::vexa::report {

const std::vector<limit_rule> limit_rules{
    {"idle", "GPU utilization", "", false, 50,
     "The GPU is idle for half of the time or more, so the limit lies outside of it"},
    {"queue", "Fragment queue utilization", "", true, 80, "The fragment queue is the busiest"},
    {"queue", "Non-fragment queue utilization", "", true, 80,
     "The queue for vertex, tiling and compute work is the busiest"},
    {"queue", "Fragment iterator utilization", "", true, 80, "Fragment work keeps the GPU busiest"},
    {"queue", "Vertex iterator utilization", "", true, 80, "Vertex and tiling work keeps the GPU busiest"},
    {"queue", "Compute iterator utilization", "", true, 80, "Compute work keeps the GPU busiest"},
    {"unit", "Execution engine utilization", "", true, 70,
     "The execution engine is the busiest unit of the shader cores"},
    {"unit", "Processing unit utilization", "", true, 70,
     "Arithmetic is the busiest unit of the shader cores"},
    {"unit", "Texture unit utilization", "", true, 70, "The texture unit is the busiest of the shader cores"},
    {"unit", "Varying unit utilization", "", true, 70, "The varying unit is the busiest of the shader cores"},
    {"unit", "Load/store unit utilization", "", true, 70,
     "The load/store unit is the busiest of the shader cores"},
    {"interrupts", "Interrupt pending utilization", "", true, 5, "Interrupts wait long for the CPU"},
    {"reads", "Output external read stall rate", "", true, 15, "Reads from external memory are held up"},
    {"writes", "Output external write stall rate", "", true, 15, "Writes to external memory are held up"},
    {"read queue", "Output external outstanding reads 75-100%", "Output external read transactions", true, 20,
     "Many reads find their queue nearly full"},
    {"write queue", "Output external outstanding writes 75-100%", "Output external write transactions", true,
     20, "Many writes find their queue nearly full"},
    {"latency", "Output external read latency 384+ cycles", "Output external read beats", true, 10,
     "External memory answers late"},
    {"overdraw", "Fragments per pixel", "", true, 3, "Pixels are drawn several times over"},
    {"culling", "Visible primitives after culling", "", false, 30, "Most primitives are sent in vain"},
    {"depth culling", "Z plane test cull rate", "", true, 10,
     "Many primitives lie outside of the depth range"},
    {"small triangles", "Sample test cull rate", "", true, 20, "Many triangles hit no sample"},
    {"L2 reads", "L2 cache read miss rate", "", true, 60, "Most reads miss the L2 cache"},
    {"L2 writes", "L2 cache write miss rate", "", true, 60, "Most writes miss the L2 cache"},
    {"positions", "Position cache hit rate", "", false, 50, "Shaded positions are seldom used again"},
    {"varyings", "Varying cache hit rate", "", false, 50, "Shaded varyings are seldom used again"},
};

namespace {

const counter_series* find_named(const sequence_summary& summary, std::string_view name) {
    for (const std::vector<counter_series>* const list : {&summary.series, &summary.unwanted}) {
        for (const counter_series& series : *list) {
            if (series.counter.name == name) {
                return &series;
            }
        }
    }
    return nullptr;
}

// The sentences of a description behind the first, which says what is counted.
std::string advice_of(const std::string& description) {
    const std::size_t end = description.find(". ");
    return end == std::string::npos ? description : description.substr(end + 2);
}

// How far past the threshold a value is, as a factor; below 1 when it is not.
double excess(const limit_rule& rule, double value) {
    return rule.is_above ? value / rule.threshold : value > 0 ? rule.threshold / value : HUGE_VAL;
}

std::optional<double> value_for(const sequence_summary& summary, const limit_rule& rule) {
    const counter_series* const series = find_named(summary, rule.counter);
    const std::optional<double> value = series != nullptr ? summary.value(*series) : std::nullopt;
    if (!value || rule.out_of.empty()) {
        return value;
    }
    const counter_series* const whole = find_named(summary, rule.out_of);
    const std::optional<double> all = whole != nullptr ? summary.value(*whole) : std::nullopt;
    return all && *all > 0 ? std::optional(*value / *all * 100) : std::nullopt;
}

// What has had nothing to do can't be judged: its ratios are 0 for the lack of work.
bool has_work(const sequence_summary& summary, const counter_series& series) {
    const formula divisor = series.expression.divisor();
    if (divisor.empty()) {
        return series.total.most > 0;
    }
    return divisor
               .evaluate([&](std::uint32_t id) -> std::optional<double> {
                   const counter_series* const operand = summary.find(id);
                   return operand != nullptr ? std::optional(operand->total.sum) : std::nullopt;
               })
               .value_or(0) > 0;
}

}  // namespace

std::optional<std::vector<limit>> limits_of(const sequence_summary& summary) {
    if (!summary.is_known) {
        return std::nullopt;
    }
    std::vector<limit> result;
    for (const limit_rule& rule : limit_rules) {
        const std::optional<double> value = value_for(summary, rule);
        if (!value || excess(rule, *value) < 1) {
            continue;
        }
        const counter_series& series = *find_named(summary, rule.counter);
        if (!rule.is_above && !has_work(summary, series)) {
            continue;
        }
        limit found{.rule = &rule,
                    .value = *value,
                    .unit = rule.out_of.empty() ? series.counter.unit() : "percent",
                    .advice = advice_of(series.counter.description)};
        const auto same = std::find_if(result.begin(), result.end(), [&rule](const limit& other) {
            return other.rule->topic == rule.topic;
        });
        if (same == result.end()) {
            result.push_back(std::move(found));
        } else if (excess(rule, *value) > excess(*same->rule, same->value)) {
            *same = std::move(found);
        }
    }
    return result;
}

std::string limit_text(const limit& found) {
    std::array<char, 64> number{};
    std::snprintf(number.data(), number.size(), "%.4g", found.value);
    const limit_rule& rule = *found.rule;
    return std::string(rule.finding) + ": \"" + std::string(rule.counter) + "\" is " + number.data() +
           (found.unit == "percent" ? " %"
            : found.unit.empty()    ? ""
                                    : " " + found.unit) +
           (rule.out_of.empty() ? "" : " of \"" + std::string(rule.out_of) + "\"");
}

}  // namespace qel::vexa::report
