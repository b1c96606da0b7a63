#include "workstation/report/compare.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <tuple>

namespace qel::vexa::report {

namespace {

using json = nlohmann::ordered_json;

// Powers of two, for batches are put together two by two. What has fewer time steps than the middle one is
// too short.
constexpr std::size_t most_batches = 32;
constexpr std::size_t least_bins = 8;
constexpr std::size_t least_batches = 4;
// Neighbours that have more in common than that are taken together.
constexpr double most_alike = 0.25;
constexpr double interval_level = 0.05;
// Counts are whole numbers, and what rounding takes from each depends on the load: that is neither chance nor
// a change of the workload. It stays below this share of a value.
constexpr double least_change = 1e-4;

// A counter in a part of a trace, as the two sums whose ratio it is.
struct batch {
    double above = 0;
    double below = 0;
};

// Of a counter in all traces of a side.
struct side {
    double value = 0;
    double variance = 0;  // of the value
    double freedom = 0;   // 0 when the traces are too short
};

batch batch_of(const sequence_summary& summary, const counter_series& series, std::size_t first,
               std::size_t end) {
    const std::optional<double> value = summary.value(series, first, end);
    if (!value) {
        return {};
    }
    double below = 0;
    for (std::size_t i = first; i < std::min(end, series.bins.size()); ++i) {
        below += static_cast<double>(series.bins[i].count);
    }
    if (series.kind == counter_kind::amount) {
        return {*value, below * series.duration() / static_cast<double>(series.total.count)};
    }
    if (const formula divisor = series.expression.divisor(); !divisor.empty()) {
        below = summary.evaluate(divisor, first, end).value_or(0);
    } else if (series.weighed != weighting::exact) {
        below = 0;
        for (std::size_t i = first; i < std::min(end, series.weights.size()); ++i) {
            below += series.weights[i].weight;
        }
    }
    return {*value * below, below};
}

// Batches of the same number of bins, as many as a power of two; none when there are too few bins. The last
// bin, which is seldom full, is left out when there are others.
std::vector<batch> batches_of(const sequence_summary& summary, const counter_series& series) {
    const std::size_t bins = summary.bin_times.size();
    std::vector<batch> result;
    if (bins < least_bins) {
        return result;
    }
    const std::size_t whole = bins > least_bins ? bins - 1 : bins;
    const std::size_t count = std::min(most_batches, std::bit_floor(whole));
    const std::size_t length = whole / count;
    for (std::size_t i = 0; i < count; ++i) {
        result.push_back(batch_of(summary, series, i * length, (i + 1) * length));
    }
    return result;
}

struct counter_of_trace {
    const sequence_summary* summary;
    const counter_series* series;
};

// What batches have above what the ratio of the whole makes of their length. Those of one trace are
// neighbours in time.
struct residuals {
    double squares = 0;
    double products = 0;  // of neighbours
    double between = 0;   // the squares of the traces' sums
    double count = 0;
    double below = 0;

    residuals(const std::vector<std::vector<batch>>& traces, double ratio) {
        for (const std::vector<batch>& batches : traces) {
            double previous = 0;
            double sum = 0;
            for (const batch& each : batches) {
                const double rest = each.above - ratio * each.below;
                squares += rest * rest;
                products += rest * previous;
                previous = rest;
                sum += rest;
                below += each.below;
            }
            between += sum * sum;
            count += static_cast<double>(batches.size());
        }
    }
    // An estimate from few batches comes out too small by about one in their number.
    double alike() const { return squares > 0 ? products / squares + 1 / count : 0; }
};

void join_neighbours(std::vector<batch>& batches) {
    for (std::size_t i = 0; i < batches.size() / 2; ++i) {
        const batch& left = batches[2 * i];
        const batch& right = batches[2 * i + 1];
        batches[i] = {left.above + right.above, left.below + right.below};
    }
    batches.resize(batches.size() / 2);
}

side sum_up(const std::vector<counter_of_trace>& traces) {
    std::vector<std::vector<batch>> all;
    batch whole;
    for (const counter_of_trace& trace : traces) {
        const batch total = batch_of(*trace.summary, *trace.series, 0, trace.summary->bin_times.size());
        whole.above += total.above;
        whole.below += total.below;
        all.push_back(batches_of(*trace.summary, *trace.series));
    }
    side result;
    result.value = whole.below > 0 ? whole.above / whole.below : 0;
    const bool is_long =
        std::none_of(all.begin(), all.end(), [](const auto& batches) { return batches.empty(); });
    if (!(whole.below > 0) || !is_long) {
        return result;
    }
    residuals rest(all, result.value);
    const auto can_join = [&all] {
        return std::all_of(all.begin(), all.end(),
                           [](const auto& batches) { return batches.size() >= 2 * least_batches; });
    };
    while (rest.alike() > most_alike && can_join()) {
        std::for_each(all.begin(), all.end(), join_neighbours);
        rest = residuals(all, result.value);
    }
    result.freedom = rest.count - 1;
    result.variance = rest.squares / (rest.count - 1) * rest.count / (rest.below * rest.below);
    const auto runs = static_cast<double>(all.size());
    const double among = runs > 1 ? rest.between * runs / (runs - 1) / (rest.below * rest.below) : 0;
    if (among > result.variance) {
        result.variance = among;
        result.freedom = runs - 1;
    }
    return result;
}

// The regularised incomplete beta function by its continued fraction, evaluated from the front.
double incomplete_beta(double a, double b, double x) {
    if (x <= 0 || x >= 1) {
        return x <= 0 ? 0 : 1;
    }
    if (x > (a + 1) / (a + b + 2)) {
        return 1 - incomplete_beta(b, a, 1 - x);
    }
    constexpr double tiny = 1e-300;
    const auto away_from_zero = [](double value) { return std::fabs(value) < tiny ? tiny : value; };
    double numerator = 1;
    double denominator = 1 / away_from_zero(1 - (a + b) * x / (a + 1));
    double fraction = denominator;
    for (int i = 1; i < 500; ++i) {
        const double m = i;
        for (const double term : {m * (b - m) * x / ((a + 2 * m - 1) * (a + 2 * m)),
                                  -(a + m) * (a + b + m) * x / ((a + 2 * m) * (a + 2 * m + 1))}) {
            denominator = 1 / away_from_zero(1 + term * denominator);
            numerator = away_from_zero(1 + term / numerator);
            fraction *= numerator * denominator;
        }
        if (std::fabs(numerator * denominator - 1) < 1e-14) {
            break;
        }
    }
    const double front =
        std::exp(std::lgamma(a + b) - std::lgamma(a) - std::lgamma(b) + a * std::log(x) + b * std::log1p(-x));
    return front * fraction / a;
}

// How often Student's t is as far from zero as this, on either side.
double both_tails(double t, double freedom) {
    return incomplete_beta(freedom / 2, 0.5, freedom / (freedom + t * t));
}

// The t that both_tails gives the level for.
double quantile(double level, double freedom) {
    double low = 0;
    double high = 1e6;
    for (int i = 0; i < 100; ++i) {
        const double middle = (low + high) / 2;
        (both_tails(middle, freedom) > level ? low : high) = middle;
    }
    return high;
}

using counter_key = std::tuple<std::string, counter_kind, std::string>;
std::map<counter_key, std::vector<counter_of_trace>> counters_of(
    const std::vector<const sequence_summary*>& traces) {
    std::map<counter_key, std::vector<counter_of_trace>> result;
    for (const sequence_summary* const trace : traces) {
        for (const counter_series& series : trace->series) {
            if (series.total.count != 0 && series.kind != counter_kind::constant) {
                result[{series.counter.name, series.kind, series.counter.unit()}].push_back({trace, &series});
            }
        }
    }
    return result;
}

// Holm: the smallest of n must be below the level over n, the next below the level over n - 1, and so on.
void mark_changes(std::vector<compared_counter>& counters) {
    std::vector<compared_counter*> tested;
    for (compared_counter& counter : counters) {
        if (counter.low) {
            tested.push_back(&counter);
        }
    }
    std::sort(tested.begin(), tested.end(),
              [](const auto* left, const auto* right) { return left->p < right->p; });
    for (std::size_t i = 0; i < tested.size(); ++i) {
        if (tested[i]->p > comparison_level / static_cast<double>(tested.size() - i)) {
            return;
        }
        const compared_counter& counter = *tested[i];
        tested[i]->is_changed = std::fabs(counter.change()) >
                                least_change * std::max(std::fabs(counter.before), std::fabs(counter.after));
    }
}

}  // namespace

double compared_counter::change_percent() const {
    return before != 0  ? change() / std::fabs(before) * 100
           : after != 0 ? std::numeric_limits<double>::infinity()
                        : 0;
}

comparison compare(const std::vector<const sequence_summary*>& before,
                   const std::vector<const sequence_summary*>& after) {
    comparison result;
    const auto left = counters_of(before);
    auto right = counters_of(after);
    for (const auto& [key, traces] : left) {
        const auto other = right.find(key);
        if (other == right.end()) {
            result.only_before.push_back(std::get<0>(key));
            continue;
        }
        const side a = sum_up(traces);
        const side b = sum_up(other->second);
        const counter_series& series = *traces.front().series;
        const bool is_amount = series.kind == counter_kind::amount;
        compared_counter counter{.name = series.counter.name,
                                 .before_id = series.counter.id,
                                 .after_id = other->second.front().series->counter.id,
                                 .block = series.block,
                                 .unit = unit_in_words(series.counter, is_amount),
                                 .kind = series.kind,
                                 .is_selected = series.counter.select_by_default,
                                 .before = a.value,
                                 .after = b.value,
                                 .low = {},
                                 .high = {}};
        right.erase(other);
        if (a.freedom > 0 && b.freedom > 0) {
            const double variance = a.variance + b.variance;
            const double change = counter.change();
            // Both without any variation: the least difference is one.
            double freedom = a.freedom + b.freedom;
            if (variance > 0) {
                freedom = variance * variance /
                          (a.variance * a.variance / a.freedom + b.variance * b.variance / b.freedom);
                counter.p = both_tails(change / std::sqrt(variance), freedom);
            } else {
                counter.p = change != 0 ? 0 : 1;
            }
            const double reach = quantile(interval_level, freedom) * std::sqrt(variance);
            // Sums of numbers near the largest there is tell nothing.
            if (std::isfinite(counter.p) && std::isfinite(reach) && std::isfinite(change)) {
                counter.low = change - reach;
                counter.high = change + reach;
            }
        }
        result.counters.push_back(std::move(counter));
    }
    for (const auto& [key, traces] : right) {
        result.only_after.push_back(std::get<0>(key));
    }
    mark_changes(result.counters);
    const auto rank = [](const compared_counter& counter) {
        const double size = std::fabs(counter.change_percent());
        return std::tuple(!counter.is_changed, !counter.is_selected, std::isfinite(size) ? -size : 0.0);
    };
    std::stable_sort(result.counters.begin(), result.counters.end(),
                     [&rank](const auto& a, const auto& b) { return rank(a) < rank(b); });
    return result;
}

std::optional<gate> gate::parse(const std::string& text) {
    const std::size_t sign = text.find_last_of("<>");
    if (sign == std::string::npos) {
        return std::nullopt;
    }
    gate result;
    result.text_ = text;
    result.name_ = text.substr(0, sign);
    result.name_.erase(result.name_.find_last_not_of(' ') + 1);
    result.is_above_ = text[sign] == '>';
    char* end = nullptr;
    result.bound_ = std::strtod(text.c_str() + sign + 1, &end);
    const bool has_number = end != text.c_str() + sign + 1;
    while (*end == ' ') {
        ++end;
    }
    result.is_percent_ = *end == '%';
    end += result.is_percent_ ? 1 : 0;
    const bool is_whole = *end == '\0';
    return has_number && is_whole && std::isfinite(result.bound_) && !result.name_.empty()
               ? std::optional(result)
               : std::nullopt;
}

bool gate::is_for(const compared_counter& counter) const {
    counter_description description;
    description.name = counter.name;
    return selection{.names = {name_}}.has(description);
}

bool gate::fails(const compared_counter& counter) const {
    const double change = is_percent_ ? counter.change_percent() : counter.change();
    return is_for(counter) && counter.is_changed && (is_above_ ? change > bound_ : change < bound_);
}

nlohmann::ordered_json comparison_in_json(const comparison_output& what) {
    const auto finite = [](double value) { return std::isfinite(value) ? json(value) : json(nullptr); };
    json result{{"version", 1},
                {"before", what.before},
                {"after", what.after},
                {"level", comparison_level},
                {"onlyBefore", what.result.only_before},
                {"onlyAfter", what.result.only_after},
                {"failed", what.failed},
                {"counters", json::array()}};
    for (const compared_counter& counter : what.result.counters) {
        result["counters"].push_back({{"name", counter.name},
                                      {"beforeId", counter.before_id},
                                      {"afterId", counter.after_id},
                                      {"block", counter.block},
                                      {"kind", kind_name(counter.kind)},
                                      {"unit", counter.unit},
                                      {"selected", counter.is_selected},
                                      {"before", counter.before},
                                      {"after", counter.after},
                                      {"change", counter.change()},
                                      {"changePercent", finite(counter.change_percent())},
                                      {"low", counter.low ? json(*counter.low) : json(nullptr)},
                                      {"high", counter.high ? json(*counter.high) : json(nullptr)},
                                      {"p", counter.low ? json(counter.p) : json(nullptr)},
                                      {"changed", counter.is_changed}});
    }
    return result;
}

}  // namespace qel::vexa::report
