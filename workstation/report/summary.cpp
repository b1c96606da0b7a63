#include "workstation/report/summary.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <iterator>

#include "hwc/counter_descriptor.h"
#include "workstation/command_line/catalogue.h"

namespace qel::vexa::report {

namespace {

// The most values that a source holds back to bring its samples in order: a mebibyte of them.
constexpr std::size_t most_held_values = std::size_t{1} << 16;
// Of those of one time, so many are looked at for one that a sample can join: where a clock stands still, all
// have one time.
constexpr std::size_t most_looked_at = 16;
// How far from its neighbours' a time is damaged.
constexpr std::uint64_t damaged_distance = 60'000'000'000;

std::uint64_t distance(std::uint64_t a, std::uint64_t b) {
    return a < b ? b - a : a - b;
}

bool is_derived(const counter_description& counter) {
    return counter.id >= hwc::first_derived_id;
}

// A block's or group's name at the start of a line; "Other" when there is none.
std::string heading(std::string name) {
    if (name.empty()) {
        return "Other";
    }
    name[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(name[0])));
    return name;
}

// What a counter is shown under: its block, or the group that a GPU not in the catalogue has put it in.
std::string heading_of(const counter_description& counter, bool is_known) {
    return heading(is_known ? command_line::block_of(counter.id, counter.name) : counter.group);
}

// The place of each heading: blocks in the order of their ids, groups as they come, and last what has none.
std::map<std::string, std::size_t> heading_places(const std::vector<counter_series>& series, bool is_known) {
    std::map<std::string, std::size_t> result;
    if (is_known) {
        for (const std::string& name : command_line::block_names()) {
            result.emplace(heading(name), result.size());
        }
    }
    for (const counter_series& each : series) {
        if (each.block != "Other") {
            result.emplace(each.block, result.size());
        }
    }
    result["Other"] = result.size();
    return result;
}

void add_value(counter_series& series, std::size_t bin_count, std::size_t bin, double value,
               std::uint64_t time) {
    series.bins.resize(bin_count);
    series.bins[bin].add(value);
    series.first = series.total.count == 0 ? time : std::min(series.first, time);
    series.last = std::max(series.last, time);
    series.total.add(value);
    series.histogram.add(value);
}

void add_weighted(counter_series& series, std::size_t bin_count, std::size_t bin, double value,
                  double weight) {
    series.weights.resize(bin_count);
    series.weights[bin].add(value, weight);
    series.total_weight.add(value, weight);
}

// Each two neighbours as one.
template <typename Bins>
void halve(Bins& bins, std::size_t count) {
    bins.resize(count);
    for (std::size_t i = 0; i < count / 2; ++i) {
        auto both = bins[2 * i];
        both.add(bins[2 * i + 1]);
        bins[i] = both;
    }
    bins.resize(count / 2);
}

void halve(sequence_summary& summary) {
    const std::size_t count = summary.bin_times.size();
    const std::size_t half = (count + 1) / 2;
    for (std::size_t i = 0; i < half; ++i) {
        summary.bin_times[i] = summary.bin_times[std::min(2 * i + 1, count - 1)];
    }
    summary.bin_times.resize(half);
    for (std::vector<counter_series>* const list : {&summary.series, &summary.unwanted}) {
        for (counter_series& series : *list) {
            halve(series.bins, 2 * half);
            if (!series.weights.empty()) {
                halve(series.weights, 2 * half);
            }
        }
    }
    summary.samples_per_bin *= 2;
}

template <typename Bins>
auto sum_of(const Bins& bins, std::size_t first, std::size_t end) {
    typename Bins::value_type result;
    for (std::size_t i = first; i < std::min(end, bins.size()); ++i) {
        result.add(bins[i]);
    }
    return result;
}

}  // namespace

void value_range::add(double value) {
    least = std::min(least, value);
    most = std::max(most, value);
    sum += value;
    ++count;
}

void value_range::add(const value_range& other) {
    least = std::min(least, other.least);
    most = std::max(most, other.most);
    sum += other.sum;
    count += other.count;
}

bool selection::has(const counter_description& counter) const {
    const auto same = [](unsigned char left, unsigned char right) {
        return std::tolower(left) == std::tolower(right);
    };
    return names.empty() || std::any_of(names.begin(), names.end(), [&](const std::string& name) {
               return std::search(counter.name.begin(), counter.name.end(), name.begin(), name.end(), same) !=
                      counter.name.end();
           });
}

counter_description unknown_counter(std::uint32_t id) {
    counter_description result;
    result.id = id;
    result.name = "counter " + std::to_string(id);
    result.select_by_default = true;  // there is no other way to be seen
    result.is_described = false;
    return result;
}

std::string_view weighting_name(weighting how) {
    static constexpr std::array<std::string_view, 4> names{"exact", "divisor", "active cycles", "time"};
    return names[static_cast<std::size_t>(how)];
}

double counter_series::duration() const {
    if (total.count < 2) {
        return 0;
    }
    const auto count = static_cast<double>(total.count);
    return static_cast<double>(last - first) / 1e9 * count / (count - 1);
}

const counter_series* sequence_summary::find(std::uint32_t id) const {
    const auto place = places.find(id);
    if (place == places.end()) {
        return nullptr;
    }
    return place->second.first ? &series[place->second.second] : &unwanted[place->second.second];
}

std::optional<double> value_over(const counter_series& of, const value_range& own,
                                 const weighted_sum& weighted, const formula::source& sum_of) {
    if (own.count == 0) {
        return std::nullopt;
    }
    if (of.kind == counter_kind::constant) {
        return own.most;
    }
    if (!of.expression.empty()) {
        if (const std::optional<double> result = of.expression.evaluate(sum_of)) {
            // What a single sample's value is held to.
            const bool is_percentage = of.counter.unit() == "percent";
            return std::clamp(*result, 0.0, is_percentage ? 100.0 : std::numeric_limits<double>::max());
        }
    }
    if (of.kind == counter_kind::amount) {
        return own.sum;
    }
    return weighted.weight > 0 ? weighted.sum / weighted.weight : own.mean();
}

double sample_weight(const formula& weight, const formula::source& value_of) {
    const std::optional<double> result = weight.evaluate([&value_of](std::uint32_t id) {
        const std::optional<double> value = value_of(id);
        return value ? value : id >= hwc::first_derived_id ? 1.0 : 0.0;
    });
    return std::max(result.value_or(0), 0.0);
}

std::optional<double> sequence_summary::value(const counter_series& of) const {
    return value(of, 0, bin_times.size());
}

std::optional<double> sequence_summary::value(const counter_series& of, std::size_t first_bin,
                                              std::size_t end_bin) const {
    const bool is_whole = first_bin == 0 && end_bin >= bin_times.size();
    return value_over(of, is_whole ? of.total : sum_of(of.bins, first_bin, end_bin),
                      is_whole ? of.total_weight : sum_of(of.weights, first_bin, end_bin),
                      [&](std::uint32_t id) { return operand(id, first_bin, end_bin); });
}

std::optional<double> sequence_summary::evaluate(const formula& expression, std::size_t first_bin,
                                                 std::size_t end_bin) const {
    return expression.evaluate([&](std::uint32_t id) { return operand(id, first_bin, end_bin); });
}

std::optional<double> sequence_summary::operand(std::uint32_t id, std::size_t first_bin,
                                                std::size_t end_bin) const {
    const counter_series* const series_of_it = find(id);
    if (series_of_it == nullptr || series_of_it->total.count == 0) {
        return std::nullopt;
    }
    const bool is_whole = first_bin == 0 && end_bin >= bin_times.size();
    return series_of_it->kind == counter_kind::constant ? series_of_it->total.most
           : is_whole                                   ? series_of_it->total.sum
                                                        : sum_of(series_of_it->bins, first_bin, end_bin).sum;
}

void ordered_listener::on_sample(std::uint32_t sequence, const counter_sample& sample) {
    if (!wanted_.has(sample)) {
        return;
    }
    const counter_source source{sequence, sample.gpu};
    state& current = held_[source];
    if (current.has_pending) {
        const std::uint64_t time = current.pending.timestamp;
        const bool is_damaged = current.has_before && distance(time, current.before) > damaged_distance &&
                                distance(time, sample.timestamp) > damaged_distance &&
                                distance(current.before, sample.timestamp) <= damaged_distance;
        if (is_damaged) {
            ++left_out_;
        } else {
            hold(source, current);
        }
    }
    current.pending = sample;
    current.has_pending = true;
}

void ordered_listener::flush() {
    for (auto& [source, current] : held_) {
        if (current.has_pending) {
            hold(source, current);
            current.has_pending = false;
        }
        while (!current.window.empty()) {
            take_first(source, current);
        }
    }
}

void ordered_listener::hold(const counter_source& source, state& current) {
    counter_sample& sample = current.pending;
    current.before = sample.timestamp;
    current.has_before = true;
    current.values += sample.values.size();
    const auto has = [](const counter_sample& in, std::uint32_t id) {
        return std::any_of(in.values.begin(), in.values.end(),
                           [id](const counter_value& value) { return value.id == id; });
    };
    const auto same = current.window.equal_range(sample.timestamp);
    auto end = same.first;
    for (std::size_t i = 0; i < most_looked_at && end != same.second; ++i) {
        ++end;
    }
    const auto other = std::find_if(same.first, end, [&](const auto& held) {
        return std::none_of(sample.values.begin(), sample.values.end(),
                            [&](const counter_value& value) { return has(held.second, value.id); });
    });
    if (other != end) {
        std::vector<counter_value>& values = other->second.values;
        values.insert(values.end(), sample.values.begin(), sample.values.end());
    } else {
        current.window.emplace(sample.timestamp, std::move(sample));
    }
    while (current.values > most_held_values) {
        take_first(source, current);
    }
}

void ordered_listener::take_first(const counter_source& source, state& current) {
    const auto first = current.window.begin();
    current.values -= first->second.values.size();
    ++taken_;
    take(source, first->second);
    current.window.erase(first);
}

trace_summary::trace_summary(std::size_t bin_limit, selection wanted)
    : ordered_listener(std::move(wanted)), bin_limit_(bin_limit) {}

void trace_summary::describe(const counter_source& source, const counter_description& counter) {
    state& current = states_[source];
    std::vector<counter_series>& series = sequences_[source].series;
    const auto [entry, is_new] = current.index.try_emplace(counter.id, series.size());
    if (is_new) {
        series.emplace_back();
    }
    // Some producers repeat their descriptions all the time.
    counter_description& known = series[entry->second].counter;
    if (is_new || known != counter) {
        known = counter;
        current.is_planned = false;
    }
}

void trace_summary::on_counters(std::uint32_t sequence, const std::vector<counter_description>& counters) {
    requested_.add_described(counters);
    for (const counter_description& counter : counters) {
        describe({sequence, counter.gpu}, counter);
    }
}

// Says of each counter what it is and how it is summed up, from the descriptions that are known.
void trace_summary::plan(state& current, sequence_summary& summary) {
    current.is_planned = true;
    current.weighers.clear();
    std::vector<counter_description> counters;
    for (const counter_series& series : summary.series) {
        counters.push_back(series.counter);
    }
    const std::optional<known_counters> known = recognise(counters);
    summary.is_known = known.has_value();
    const auto has_all = [&current](const formula& expression, bool constants_too) {
        return std::all_of(expression.steps().begin(), expression.steps().end(), [&](const auto& step) {
            return step.what != formula::action::counter || current.index.contains(step.id) ||
                   (!constants_too && step.id >= hwc::first_derived_id);
        });
    };
    formula active_cycles;
    if (known && known->ids.contains("GPU_ACTIVE")) {
        active_cycles = formula({{.what = formula::action::counter, .id = known->ids.at("GPU_ACTIVE")}});
    }
    for (std::size_t i = 0; i < summary.series.size(); ++i) {
        counter_series& series = summary.series[i];
        series.kind = kind_of(series.counter, known);
        series.weighed = weighting::exact;
        series.expression = {};
        series.weight = {};
        formula how;
        if (known && known->formulas.contains(series.counter.id)) {
            how = known->formulas.at(series.counter.id);
        }
        if (!how.empty() && series.kind != counter_kind::constant && has_all(how, true)) {
            series.expression = how;
            continue;
        }
        if (series.kind == counter_kind::amount || series.kind == counter_kind::constant) {
            continue;
        }
        if (!how.divisor().empty() && has_all(how.divisor(), false)) {
            series.weighed = weighting::divisor;
            series.weight = how.divisor();
        } else if (!active_cycles.empty() && has_all(active_cycles, true)) {
            series.weighed = weighting::active_cycles;
            series.weight = active_cycles;
        } else {
            series.weighed = weighting::time;
        }
        current.weighers.push_back({.series = i});
    }
}

void trace_summary::start_bin(state& current, sequence_summary& summary) const {
    if (summary.bin_times.size() == bin_limit_) {
        halve(summary);
    }
    summary.bin_times.push_back(0);
    current.in_last_bin = 0;
}

// Adds the values of the sample in hand to the means of those counters that are no sums.
void trace_summary::weigh(state& current, sequence_summary& summary, std::size_t bin, std::uint64_t time) {
    const std::size_t bin_count = summary.bin_times.size();
    for (state::weigher& each : current.weighers) {
        counter_series& series = summary.series[each.series];
        const double value = current.values[each.series];
        if (std::isnan(value)) {
            continue;
        }
        if (!series.weight.empty()) {
            const double weight =
                sample_weight(series.weight, [&current](std::uint32_t id) -> std::optional<double> {
                    const auto place = current.index.find(id);
                    const double operand = place != current.index.end() ? current.values[place->second] : NAN;
                    return !std::isnan(operand) ? std::optional(operand) : std::nullopt;
                });
            add_weighted(series, bin_count, bin, value, weight);
            continue;
        }
        // The series has this value already. How long the first one stood nobody knows: as long as the
        // second.
        if (series.total.count == 1) {
            each.first_value = value;
            each.first_bin = bin;
            each.last = time;
            continue;
        }
        const bool is_late = time < each.last;
        const double length = is_late ? series.duration() / static_cast<double>(series.total.count)
                                      : static_cast<double>(time - each.last) / 1e9;
        if (series.total.count == 2) {
            add_weighted(series, bin_count, std::min(each.first_bin, bin), each.first_value, length);
        }
        add_weighted(series, bin_count, bin, value, length);
        each.last = std::max(each.last, time);
    }
}

void trace_summary::take(const counter_source& source, const counter_sample& sample) {
    state& current = states_[source];
    sequence_summary& summary = sequences_[source];
    for (const counter_value& value : sample.values) {
        if (!current.index.contains(value.id)) {
            describe(source, unknown_counter(value.id));
        }
    }
    if (!current.is_planned) {
        plan(current, summary);
    }
    const std::uint64_t time = sample.timestamp;
    summary.first = summary.bin_times.empty() ? time : std::min(summary.first, time);
    const bool is_late = !summary.bin_times.empty() && time < summary.bin_times.back();
    if (!is_late) {
        if (summary.bin_times.empty() || current.in_last_bin == summary.samples_per_bin) {
            start_bin(current, summary);
        }
        summary.bin_times.back() = time;
        ++current.in_last_bin;
    }
    const auto place = is_late ? std::lower_bound(summary.bin_times.begin(), summary.bin_times.end(), time)
                               : summary.bin_times.end() - 1;
    const auto bin = static_cast<std::size_t>(place - summary.bin_times.begin());
    ++summary.samples;
    current.values.assign(summary.series.size(), NAN);
    std::size_t expected = 0;  // samples have their counters in the order of the description
    for (const counter_value& value : sample.values) {
        if (expected >= summary.series.size() || summary.series[expected].counter.id != value.id) {
            expected = current.index[value.id];
        }
        if (std::isfinite(value.value)) {
            add_value(summary.series[expected], summary.bin_times.size(), bin, value.value, time);
            current.values[expected] = value.value;
        }
        ++expected;
    }
    weigh(current, summary, bin, time);
}

const std::map<counter_source, sequence_summary>& trace_summary::finish() {
    if (std::exchange(is_finished_, true)) {
        return sequences_;
    }
    flush();
    // What is described in one sequence alone is taken to hold for the others too.
    std::map<std::pair<std::uint32_t, std::uint32_t>, const counter_description*> described;
    for (const auto& [source, summary] : sequences_) {
        for (const counter_series& series : summary.series) {
            if (series.counter.is_described) {
                const auto [entry, is_new] =
                    described.try_emplace({source.gpu, series.counter.id}, &series.counter);
                if (!is_new && entry->second != nullptr && entry->second->name != series.counter.name) {
                    entry->second = nullptr;
                }
            }
        }
    }
    for (auto& [source, summary] : sequences_) {
        for (counter_series& series : summary.series) {
            const auto found = described.find({source.gpu, series.counter.id});
            if (!series.counter.is_described && found != described.end() && found->second != nullptr) {
                series.counter = *found->second;
            }
        }
    }
    for (auto& [source, summary] : sequences_) {
        plan(states_[source], summary);
        if (source.gpu < gpu_names_.size()) {
            summary.gpu_name = gpu_names_[source.gpu];
        }
        for (counter_series& series : summary.series) {
            series.block = heading_of(series.counter, summary.is_known);
            if (series.weighed != weighting::exact && !(series.total_weight.weight > 0)) {
                series.weighed = weighting::time;  // described too late to be weighed otherwise
            }
        }
        const std::map<std::string, std::size_t> headings = heading_places(summary.series, summary.is_known);
        const auto place = [&headings, &summary = summary](const counter_series& series) {
            return std::pair(headings.at(series.block), summary.is_known && !is_derived(series.counter));
        };
        std::stable_sort(
            summary.series.begin(), summary.series.end(),
            [&place](const auto& left, const auto& right) { return place(left) < place(right); });
        const auto unwanted = std::stable_partition(
            summary.series.begin(), summary.series.end(),
            [this](const counter_series& series) { return wanted().has(series.counter); });
        summary.unwanted.assign(std::make_move_iterator(unwanted),
                                std::make_move_iterator(summary.series.end()));
        summary.series.erase(unwanted, summary.series.end());
        for (const bool is_wanted : {true, false}) {
            const std::vector<counter_series>& list = is_wanted ? summary.series : summary.unwanted;
            for (std::size_t i = 0; i < list.size(); ++i) {
                summary.places.emplace(list[i].counter.id, std::pair(is_wanted, i));
            }
        }
    }
    return sequences_;
}

const sequence_summary& trace_summary::keep_largest() {
    const auto largest =
        std::max_element(sequences_.begin(), sequences_.end(),
                         [](const auto& a, const auto& b) { return a.second.samples < b.second.samples; });
    sequences_.erase(sequences_.begin(), largest);
    sequences_.erase(std::next(largest), sequences_.end());
    return largest->second;
}

void trace_summary::coarsen(std::size_t bin_limit) {
    for (auto& [source, summary] : sequences_) {
        while (summary.bin_times.size() > bin_limit) {
            halve(summary);
        }
    }
}

std::uint64_t trace_summary::undescribed() const {
    return static_cast<std::uint64_t>(
        std::count_if(sequences_.begin(), sequences_.end(), [](const auto& entry) {
            return std::any_of(entry.second.series.begin(), entry.second.series.end(),
                               [](const counter_series& series) { return !series.counter.is_described; });
        }));
}

void trace_survey::on_counters(std::uint32_t sequence, const std::vector<counter_description>& counters) {
    for (const counter_description& counter : counters) {
        described_[{sequence, counter.gpu}][counter.id] = counter;
    }
}

void trace_survey::take(const counter_source& source, const counter_sample& sample) {
    first_ = std::min(first_, sample.timestamp);
    std::vector<std::uint32_t>& ids = ids_[source];
    for (std::size_t i = 0; i < sample.values.size(); ++i) {
        const std::uint32_t id = sample.values[i].id;
        if ((i >= ids.size() || ids[i] != id) && std::find(ids.begin(), ids.end(), id) == ids.end()) {
            ids.push_back(id);
        }
    }
}

std::map<counter_source, std::vector<counter_description>> trace_survey::sequences() const {
    std::map<counter_source, std::vector<counter_description>> result;
    for (const auto& [source, ids] : ids_) {
        std::vector<counter_description>& counters = result[source];
        const auto described = described_.find(source);
        for (const std::uint32_t id : ids) {
            const bool is_known = described != described_.end() && described->second.contains(id);
            counters.push_back(is_known ? described->second.at(id) : unknown_counter(id));
        }
    }
    return result;
}

}  // namespace qel::vexa::report
