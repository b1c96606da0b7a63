#include "workstation/report/by_frame.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <utility>

namespace qel::vexa::report {

namespace {

constexpr std::size_t most_open = 1024;
constexpr std::size_t most_layers = 64;
constexpr std::size_t most_longest = 10;
constexpr std::size_t most_common = 8;

// How far two values are from each other, up or down alike.
double distance(const contrast& one) {
    if (one.longest == one.others) {
        return 0;
    }
    const double ratio = one.others != 0 ? one.longest / one.others : std::numeric_limits<double>::infinity();
    return std::fabs(std::log(std::max(1e-9, ratio)));  // of sums that overflow the ratio is no number
}

}  // namespace

frame_reader::frame_reader(const counter_source& source, const sequence_summary& summary, selection wanted,
                           const std::vector<frame>& frames, std::vector<const counter_series*> columns,
                           amount_form amounts, row_listener on_row)
    : ordered_listener(std::move(wanted)),
      source_(source),
      summary_(summary),
      frames_(frames),
      columns_(std::move(columns)),
      amounts_(amounts),
      on_row_(std::move(on_row)),
      is_longest_(frames.size()) {
    for (const std::vector<counter_series>* const list : {&summary.series, &summary.unwanted}) {
        for (const counter_series& series : *list) {
            places_.emplace(series.counter.id, series_.size());
            series_.push_back(&series);
        }
    }
    last_times_.resize(series_.size());
    std::map<std::string, std::size_t> layers;
    std::vector<std::vector<std::size_t>> frames_of;
    for (std::size_t i = 0; i < frames.size(); ++i) {
        const auto [entry, is_new] = layers.try_emplace(frames[i].layer, layers.size());
        layer_of_.push_back(entry->second);
        if (is_new) {
            frames_of.emplace_back();
        }
        frames_of[entry->second].push_back(i);
        if (is_new && layers_.size() < most_layers) {
            layer_state& added = layers_.emplace_back();
            added.found.layer = frames[i].layer;
            added.longest.resize(series_.size());
            added.others.resize(series_.size());
        }
    }
    for (std::size_t i = 0; i < layers_.size(); ++i) {
        std::vector<std::size_t>& longest = frames_of[i];
        std::stable_sort(longest.begin(), longest.end(), [&frames](std::size_t left, std::size_t right) {
            return frames[left].end - frames[left].start > frames[right].end - frames[right].start;
        });
        longest.resize(std::min(longest.size(), most_longest));
        for (const std::size_t place : longest) {
            is_longest_[place] = true;
        }
        layers_[i].found.longest = std::move(longest);
    }
}

void frame_reader::take(const counter_source& source, const counter_sample& sample) {
    if (source != source_) {
        return;
    }
    const std::uint64_t time = sample.timestamp;
    end_before(time);
    begin_until(time);
    values_.assign(series_.size(), NAN);
    for (const counter_value& value : sample.values) {
        const auto place = places_.find(value.id);
        if (place != places_.end() && std::isfinite(value.value)) {
            values_[place->second] = value.value;
        }
    }
    for (open_frame& each : open_) {
        each.samples += frames_[each.place].start < time ? 1U : 0U;
    }
    const auto value_of = [this](std::uint32_t id) -> std::optional<double> {
        const auto place = places_.find(id);
        return place != places_.end() && !std::isnan(values_[place->second])
                   ? std::optional(values_[place->second])
                   : std::nullopt;
    };
    for (std::size_t i = 0; i < series_.size(); ++i) {
        if (std::isnan(values_[i])) {
            continue;
        }
        const counter_series& series = *series_[i];
        double weight = 0;
        if (series.weighed != weighting::exact && !series.weight.empty() && !open_.empty()) {
            weight = sample_weight(series.weight, value_of);
        } else if (series.weighed != weighting::exact) {
            const std::uint64_t last = last_times_[i];
            weight = last != 0 && last < time ? static_cast<double>(time - last) / 1e9
                                              : series.duration() / static_cast<double>(series.total.count);
        }
        last_times_[i] = time;
        for (open_frame& each : open_) {
            // One that came late can belong to none of those that go on.
            if (frames_[each.place].start < time) {
                each.sums[i].own.add(values_[i]);
                each.sums[i].weighted.add(values_[i], weight);
            }
        }
    }
}

void frame_reader::begin_until(std::uint64_t time) {
    for (; next_ < frames_.size() && frames_[next_].start < time; ++next_) {
        open_frame begun{.place = next_, .sums = all_sums(series_.size())};
        if (frames_[next_].end < time) {
            end(begun);  // no sample lies within it
        } else if (open_.size() < most_open) {
            open_.push_back(std::move(begun));
        } else {
            ++left_out_;
        }
    }
}

void frame_reader::end_before(std::uint64_t time) {
    const auto rest = std::stable_partition(
        open_.begin(), open_.end(), [&](const open_frame& each) { return frames_[each.place].end < time; });
    std::stable_sort(open_.begin(), rest, [this](const open_frame& left, const open_frame& right) {
        return frames_[left.place].end < frames_[right.place].end;
    });
    std::for_each(open_.begin(), rest, [this](open_frame& each) { end(each); });
    open_.erase(open_.begin(), rest);
}

void frame_reader::end(open_frame& ended) {
    if (const std::size_t layer = layer_of_[ended.place]; layer < layers_.size()) {
        all_sums& group = is_longest_[ended.place] ? layers_[layer].longest : layers_[layer].others;
        for (std::size_t i = 0; i < group.size(); ++i) {
            group[i].own.add(ended.sums[i].own);
            group[i].weighted.add(ended.sums[i].weighted);
        }
    }
    if (on_row_) {
        std::vector<std::optional<double>> values;
        for (const counter_series* const column : columns_) {
            values.push_back(value(*column, ended.sums, amounts_));
        }
        on_row_(ended.place, ended.samples, values);
    }
}

std::optional<double> frame_reader::value(const counter_series& of, const all_sums& sums,
                                          amount_form form) const {
    const counter_sums& own = sums[places_.at(of.counter.id)];
    const std::optional<double> result =
        value_over(of, own.own, own.weighted, [&](std::uint32_t id) -> std::optional<double> {
            const auto place = places_.find(id);
            if (place == places_.end() || series_[place->second]->total.count == 0) {
                return std::nullopt;
            }
            const counter_series& operand = *series_[place->second];
            return operand.kind == counter_kind::constant ? operand.total.most : sums[place->second].own.sum;
        });
    if (!result || of.kind != counter_kind::amount || form == amount_form::total) {
        return result;
    }
    const auto count = static_cast<double>(own.own.count);
    // What a sample stands for, as over the whole trace.
    const double seconds = count * of.duration() / static_cast<double>(of.total.count);
    if (form == amount_form::per_second && !(seconds > 0)) {
        return std::nullopt;
    }
    return *result / (form == amount_form::per_sample ? count : seconds);
}

std::vector<layer_contrast> frame_reader::finish() {
    flush();
    constexpr std::uint64_t end_of_time = std::numeric_limits<std::uint64_t>::max();
    end_before(end_of_time);
    begin_until(end_of_time);
    end_before(end_of_time);
    std::vector<layer_contrast> result;
    for (layer_state& layer : layers_) {
        for (const counter_series& series : summary_.series) {
            const auto over = [&](const all_sums& sums) {
                return value(series, sums, amount_form::per_second);
            };
            const bool differs = series.total.count != 0 && series.total.least != series.total.most;
            if (!differs || (!series.counter.select_by_default && wanted().names.empty())) {
                continue;
            }
            const std::optional<double> longest = over(layer.longest);
            const std::optional<double> others = over(layer.others);
            if (longest && others && *longest != *others) {
                layer.found.common.push_back({&series, *longest, *others});
            }
        }
        std::vector<contrast>& common = layer.found.common;
        std::stable_sort(common.begin(), common.end(), [](const contrast& left, const contrast& right) {
            return distance(left) > distance(right);
        });
        common.erase(common.begin() + static_cast<std::ptrdiff_t>(std::min(common.size(), most_common)),
                     common.end());
        result.push_back(std::move(layer.found));
    }
    return result;
}

}  // namespace qel::vexa::report
