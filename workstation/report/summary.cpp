#include "workstation/report/summary.h"

#include <algorithm>
#include <cctype>
#include <cmath>

#include "hwc/counter_descriptor.h"
#include "workstation/command_line/catalogue.h"

namespace qel::vexa::report {

namespace {

bool is_derived(const counter_description& counter) {
    return counter.id >= hwc::first_derived_id;
}

// What counters are shown under: their blocks, and what is in no block of a GPU that is known.
const std::vector<std::string>& headings() {
    static const std::vector<std::string> result = [] {
        std::vector<std::string> names = command_line::block_names();
        for (std::string& name : names) {
            name[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(name[0])));
        }
        names.insert(names.end(), {"Derived", "Other"});
        return names;
    }();
    return result;
}

const std::string& heading_of(const counter_description& counter) {
    const std::vector<std::string>& blocks = command_line::block_names();
    const auto found =
        std::find(blocks.begin(), blocks.end(), command_line::block_of(counter.id, counter.name));
    const auto index = static_cast<std::size_t>(found - blocks.begin());
    return headings()[found != blocks.end() || is_derived(counter) ? index : index + 1];
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
    return result;
}

void ordered_listener::on_sample(std::uint32_t sequence, const counter_sample& sample) {
    if (!wanted_.has(sample)) {
        return;
    }
    state& current = held_[sequence];
    if (current.has_pending && sample.timestamp < current.pending.timestamp) {
        // One of the two is off: the new one unless it fits behind what was taken before.
        ++out_of_order_;
        if (sample.timestamp < current.last) {
            return;
        }
    } else {
        take_pending(sequence, current);
    }
    current.pending = sample;
    current.has_pending = true;
}

void ordered_listener::flush() {
    for (auto& [sequence, current] : held_) {
        take_pending(sequence, current);
    }
}

void ordered_listener::take_pending(std::uint32_t sequence, state& current) {
    if (current.has_pending) {
        current.has_pending = false;
        current.last = current.pending.timestamp;
        ++taken_;
        take(sequence, current.pending);
    }
}

trace_summary::trace_summary(std::size_t bin_limit, selection wanted)
    : ordered_listener(std::move(wanted)), bin_limit_(bin_limit) {}

void trace_summary::describe(std::uint32_t sequence, const counter_description& counter) {
    std::vector<counter_series>& series = sequences_[sequence].series;
    const auto [entry, is_new] = states_[sequence].index.try_emplace(counter.id, series.size());
    if (is_new) {
        series.emplace_back();
    }
    series[entry->second].counter = counter;
}

void trace_summary::on_counters(std::uint32_t sequence, const std::vector<counter_description>& counters) {
    states_[sequence].is_described = true;
    for (const counter_description& counter : counters) {
        describe(sequence, counter);
    }
}

void trace_summary::take(std::uint32_t sequence, const counter_sample& sample) {
    state& current = states_[sequence];
    sequence_summary& summary = sequences_[sequence];
    if (summary.bin_times.empty()) {
        summary.first = sample.timestamp;
    }
    if (summary.bin_times.empty() || current.in_last_bin == summary.samples_per_bin) {
        if (summary.bin_times.size() == bin_limit_) {
            for (std::size_t i = 0; i < bin_limit_ / 2; ++i) {
                summary.bin_times[i] = summary.bin_times[2 * i + 1];
            }
            summary.bin_times.resize(bin_limit_ / 2);
            for (counter_series& series : summary.series) {
                series.bins.resize(bin_limit_);
                for (std::size_t i = 0; i < bin_limit_ / 2; ++i) {
                    value_range both = series.bins[2 * i];
                    both.add(series.bins[2 * i + 1]);
                    series.bins[i] = both;
                }
                series.bins.resize(bin_limit_ / 2);
            }
            summary.samples_per_bin *= 2;
        }
        summary.bin_times.push_back(0);
        current.in_last_bin = 0;
    }
    summary.bin_times.back() = sample.timestamp;
    ++current.in_last_bin;
    ++summary.samples;
    std::size_t expected = 0;  // samples have their counters in the order of the description
    for (const counter_value& value : sample.values) {
        if (expected >= summary.series.size() || summary.series[expected].counter.id != value.id) {
            if (!current.index.contains(value.id)) {
                describe(sequence, unknown_counter(value.id));
            }
            expected = current.index[value.id];
        }
        if (std::isfinite(value.value)) {
            counter_series& series = summary.series[expected];
            series.bins.resize(summary.bin_times.size());
            series.bins.back().add(value.value);
            series.total.add(value.value);
        }
        ++expected;
    }
}

const std::map<std::uint32_t, sequence_summary>& trace_summary::finish() {
    flush();
    const std::vector<std::string>& blocks = headings();
    const auto place = [&blocks](const counter_series& series) {
        return std::pair(std::find(blocks.begin(), blocks.end(), series.block), !is_derived(series.counter));
    };
    for (auto& [sequence, summary] : sequences_) {
        std::erase_if(summary.series,
                      [this](const counter_series& series) { return !wanted().has(series.counter); });
        for (counter_series& series : summary.series) {
            series.block = heading_of(series.counter);
        }
        std::stable_sort(
            summary.series.begin(), summary.series.end(),
            [&place](const auto& left, const auto& right) { return place(left) < place(right); });
    }
    return sequences_;
}

std::uint64_t trace_summary::undescribed() const {
    return static_cast<std::uint64_t>(std::count_if(
        states_.begin(), states_.end(), [](const auto& entry) { return !entry.second.is_described; }));
}

void trace_survey::on_counters(std::uint32_t sequence, const std::vector<counter_description>& counters) {
    for (const counter_description& counter : counters) {
        described_[sequence][counter.id] = counter;
    }
}

void trace_survey::take(std::uint32_t sequence, const counter_sample& sample) {
    first_ = std::min(first_, sample.timestamp);
    std::vector<std::uint32_t>& ids = ids_[sequence];
    for (std::size_t i = 0; i < sample.values.size(); ++i) {
        const std::uint32_t id = sample.values[i].id;
        if ((i >= ids.size() || ids[i] != id) && std::find(ids.begin(), ids.end(), id) == ids.end()) {
            ids.push_back(id);
        }
    }
}

std::map<std::uint32_t, std::vector<counter_description>> trace_survey::sequences() const {
    std::map<std::uint32_t, std::vector<counter_description>> result;
    for (const auto& [sequence, ids] : ids_) {
        std::vector<counter_description>& counters = result[sequence];
        const auto described = described_.find(sequence);
        for (const std::uint32_t id : ids) {
            const bool is_known = described != described_.end() && described->second.contains(id);
            counters.push_back(is_known ? described->second.at(id) : unknown_counter(id));
        }
    }
    return result;
}

}  // namespace qel::vexa::report
