#include "workstation/report/figures.h"

#include <algorithm>
#include <cmath>
#include <map>

namespace qel::vexa::report {

namespace {

// A table of the GPU has about two hundred and fifty counters, of which a hundred are selected by default. A
// trace with no more than these many was recorded with chosen ones.
constexpr std::size_t many_counters = 120;

const std::map<std::string, std::string>& short_words() {
    static const std::map<std::string, std::string> result{
        {"percent", "%"},      {"byte", "B"},         {"pixel", "px"},      {"primitive", "prim"},
        {"fragment", "frag"},  {"vertex", "vert"},    {"triangle", "tri"},  {"instruction", "instr"},
        {"second", "s"},       {"hertz", "Hz"},       {"watt", "W"},        {"celsius", "°C"},
        {"millisecond", "ms"}, {"microsecond", "us"}, {"nanosecond", "ns"}, {"kelvin", "K"},
        {"volt", "V"},         {"ampere", "A"},       {"joule", "J"},       {"megahertz", "MHz"},
        {"kilohertz", "kHz"},  {"gigahertz", "GHz"},  {"milliwatt", "mW"}};
    return result;
}

// Each word of a unit in short.
std::string shortened(const std::string& unit) {
    std::string result;
    for (std::size_t begin = 0; begin < unit.size();) {
        const std::size_t end = std::min(unit.find_first_of(" /", begin), unit.size());
        const std::string word = unit.substr(begin, end - begin);
        const auto found = short_words().find(word);
        result += found != short_words().end() ? found->second : word;
        result += unit.substr(end, end < unit.size() ? 1 : 0);
        begin = end + 1;
    }
    return result.starts_with("per ") ? "/" + result.substr(4) : result;
}

}  // namespace

std::optional<counter_figures> figures_of(const sequence_summary& summary, const counter_series& series,
                                          amount_form form) {
    const std::optional<double> value = summary.value(series);
    if (!value) {
        return std::nullopt;
    }
    double factor = 1;        // from a sample to what is shown
    double value_factor = 1;  // from the value over the whole time
    if (series.kind == counter_kind::amount) {
        const auto count = static_cast<double>(series.total.count);
        const double seconds = series.duration();
        if (form == amount_form::per_sample) {
            value_factor = 1 / count;
        } else if (form == amount_form::per_second) {
            if (!(seconds > 0)) {
                return std::nullopt;
            }
            factor = count / seconds;
            value_factor = 1 / seconds;
        }
    }
    // A percentile is the lower bound of where it lies, which can be below the least value.
    const auto percentile = [&series, factor](double share) {
        return std::clamp(series.histogram.percentile(share), series.total.least, series.total.most) * factor;
    };
    return counter_figures{.value = *value * value_factor,
                           .least = series.total.least * factor,
                           .p50 = percentile(0.5),
                           .p95 = percentile(0.95),
                           .p99 = percentile(0.99),
                           .most = series.total.most * factor};
}

std::string unit_in_words(const counter_description& counter, bool is_per_second) {
    const std::string unit = counter.unit();
    return !is_per_second ? unit : unit.empty() ? "per second" : unit + "/second";
}

short_unit short_unit_of(const std::string& unit_in_words, counter_kind kind, double value) {
    const std::string unit = shortened(unit_in_words);
    if (kind != counter_kind::amount) {
        return {unit, 1};
    }
    static constexpr struct {
        double least;
        const char* prefix;
    } steps[] = {{1e12, "T"}, {1e9, "G"}, {1e6, "M"}, {1e3, "k"}};
    for (const auto& step : steps) {
        // 999.96 is shown with its four digits as 1.
        if (std::fabs(value) >= step.least * 0.99995) {
            return {step.prefix + unit, step.least};
        }
    }
    return {unit, 1};
}

bool shows_selection_only(const sequence_summary& summary) {
    const auto selected =
        std::count_if(summary.series.begin(), summary.series.end(),
                      [](const counter_series& series) { return series.counter.select_by_default; });
    return selected != 0 && summary.series.size() > many_counters;
}

}  // namespace qel::vexa::report
