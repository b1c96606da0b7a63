#include "workstation/report/page_levels.h"

#ifdef COUNTERFEED_ZLIB
#include <zlib.h>
#endif

#include <algorithm>
#include <cmath>
#include <iterator>
#include <limits>
#include <new>
#include <ostream>

#include "workstation/report/base64.h"

namespace qel::vexa::report {

namespace {

// The numbers' first bytes, then their second ones, and so on: what is alike stands together.
template <typename Number>
void append_shuffled(std::vector<std::uint8_t>& out, std::span<const Number> numbers) {
    const std::size_t begin = out.size();
    out.resize(begin + numbers.size_bytes());
    const auto* const bytes = reinterpret_cast<const std::uint8_t*>(numbers.data());
    for (std::size_t i = 0; i < numbers.size_bytes(); ++i) {
        out[begin + i % sizeof(Number) * numbers.size() + i / sizeof(Number)] = bytes[i];
    }
}

template <typename Number>
std::vector<std::uint8_t> run_of(char kind, std::span<const Number> numbers) {
    std::vector<std::uint8_t> result{static_cast<std::uint8_t>(kind)};
    append_shuffled(result, numbers);
    return result;
}

float to_float(double value) {
    constexpr double limit = std::numeric_limits<float>::max();
    return static_cast<float>(std::clamp(value, -limit, limit));
}

// Whole numbers stay exact; others keep the seven digits of a float.
std::vector<std::uint8_t> run_of_samples_of(std::span<const double> samples) {
    constexpr double most = std::numeric_limits<std::int32_t>::max();
    bool is_small = true;
    bool is_float = true;
    for (const double value : samples) {
        if (!std::isnan(value)) {
            const bool is_whole = value == std::trunc(value);
            is_small = is_small && is_whole && std::fabs(value) <= most;
            is_float = is_float && (!is_whole || static_cast<double>(to_float(value)) == value);
        }
    }
    if (is_small) {
        std::vector<std::int32_t> numbers;
        std::transform(samples.begin(), samples.end(), std::back_inserter(numbers), [](double value) {
            return std::isnan(value) ? std::numeric_limits<std::int32_t>::min()
                                     : static_cast<std::int32_t>(value);
        });
        return run_of('i', std::span<const std::int32_t>(numbers));
    }
    if (is_float) {
        std::vector<float> numbers;
        std::transform(samples.begin(), samples.end(), std::back_inserter(numbers), to_float);
        return run_of('f', std::span<const float>(numbers));
    }
    return run_of('d', samples);
}

// One line of a text.
std::string packed(const std::vector<std::uint8_t>& bytes) {
#ifdef COUNTERFEED_ZLIB
    uLongf size = compressBound(static_cast<uLong>(bytes.size()));
    std::vector<std::uint8_t> result(size);
    constexpr int level = 5;
    if (compress2(result.data(), &size, bytes.data(), static_cast<uLong>(bytes.size()), level) != Z_OK) {
        throw std::bad_alloc();  // nothing else can be wrong
    }
    result.resize(size);
    return base64(result) + '\n';
#else
    return base64(bytes) + '\n';
#endif
}

}  // namespace

std::size_t page_levels::level_count(const sequence_summary& summary) {
    std::size_t result = 0;
    for (std::uint64_t step = 1; step < summary.samples_per_bin; step *= steps_per_step) {
        ++result;
    }
    return result;
}

page_levels::page_levels(const std::map<counter_source, sequence_summary>& sequences, selection wanted,
                         std::uint64_t origin, std::size_t limit, std::size_t first_place)
    : ordered_listener(std::move(wanted)), origin_(origin), limit_(limit) {
    std::size_t place = first_place;
    struct candidate {
        victim text;
        bool is_selected;
    };
    std::vector<candidate> candidates;
    for (const auto& [number, summary] : sequences) {
        if (summary.samples == 0) {
            continue;
        }
        state& current = states_[number];
        current.place = place++;
        const std::size_t levels = level_count(summary);
        current.times.resize(levels, time_level{.times = {}, .before = origin, .lines = {}});
        for (std::size_t i = 0; i < summary.series.size() && levels != 0; ++i) {
            const counter_series& series = summary.series[i];
            column& counter = current.columns.emplace_back();
            current.index[series.counter.id] = i;
            counter.levels.resize(levels - 1);
            for (std::size_t level = 0; level < levels; ++level) {
                // What never changes is in the overview as well as it can be.
                if (series.total.count == 0 || series.total.least == series.total.most) {
                    text_of(counter, level).is_kept = false;
                } else {
                    candidates.push_back({{&current, i, level}, series.counter.select_by_default});
                }
            }
        }
    }
    std::stable_sort(candidates.begin(), candidates.end(), [](const candidate& left, const candidate& right) {
        return left.text.level != right.text.level ? left.text.level > right.text.level
                                                   : left.is_selected && !right.is_selected;
    });
    for (const candidate& each : candidates) {
        victims_.push_back(each.text);
    }
}

page_levels::level_text& page_levels::text_of(column& counter, std::size_t level) {
    return level == 0 ? counter.sample_text : counter.levels[level - 1].text;
}

void page_levels::take(const counter_source& source, const counter_sample& sample) {
    const auto found = states_.find(source);
    if (found == states_.end() || found->second.times.empty()) {
        return;
    }
    state& current = found->second;
    const std::size_t place = current.samples % run_of_samples;
    for (const counter_value& value : sample.values) {
        const auto index = current.index.find(value.id);
        if (index != current.index.end() && std::isfinite(value.value)) {
            std::vector<double>& samples = current.columns[index->second].samples;
            samples.resize(place + 1, std::numeric_limits<double>::quiet_NaN());
            samples.back() = value.value;
        }
    }
    ++current.samples;
    // One that comes too late to be put in order is shown with those among which it comes.
    current.last = std::max(current.last, sample.timestamp);
    add_times(current, 0, std::span(&current.last, 1));
    if (place + 1 == run_of_samples) {
        end_run(current);
    }
}

void page_levels::end_run(state& current) {
    const std::size_t count = (current.samples - 1) % run_of_samples + 1;
    std::vector<value_range> steps;
    for (column& counter : current.columns) {
        counter.samples.resize(count, std::numeric_limits<double>::quiet_NaN());
        if (counter.sample_text.is_kept) {
            keep(counter.sample_text, run_of_samples_of(counter.samples));
        }
        if (!counter.levels.empty()) {
            steps.clear();
            for (std::size_t i = 0; i < count; ++i) {
                if (i % steps_per_step == 0) {
                    steps.emplace_back();
                }
                if (!std::isnan(counter.samples[i])) {
                    steps.back().add(counter.samples[i]);
                }
            }
            add_steps(counter, 1, steps);
        }
        counter.samples.clear();
    }
}

void page_levels::add_steps(column& counter, std::size_t level, std::span<const value_range> steps) {
    if (level > counter.levels.size()) {
        return;
    }
    std::vector<value_range>& run = counter.levels[level - 1].steps;
    run.insert(run.end(), steps.begin(), steps.end());
    if (run.size() >= run_of_steps) {
        end_step_run(counter, level);
    }
}

void page_levels::end_step_run(column& counter, std::size_t level) {
    std::vector<value_range> steps = std::move(counter.levels[level - 1].steps);
    counter.levels[level - 1].steps.clear();
    if (level_text& text = counter.levels[level - 1].text; text.is_kept) {
        std::vector<float> numbers;
        constexpr float none = std::numeric_limits<float>::quiet_NaN();
        for (const auto& number : {&value_range::least, &value_range::most}) {
            for (const value_range& step : steps) {
                numbers.push_back(step.count != 0 ? to_float(step.*number) : none);
            }
        }
        for (const value_range& step : steps) {
            numbers.push_back(step.count != 0 ? to_float(step.mean()) : none);
        }
        keep(text, run_of('f', std::span<const float>(numbers)));
    }
    std::vector<value_range> above(
        static_cast<std::size_t>((steps.size() + steps_per_step - 1) / steps_per_step));
    for (std::size_t i = 0; i < steps.size(); ++i) {
        above[i / steps_per_step].add(steps[i]);
    }
    add_steps(counter, level + 1, above);
}

// A step's time is that of its last sample. Here it is known by its place that it is the last, or by the end.
void page_levels::add_times(state& current, std::size_t level, std::span<const std::uint64_t> times) {
    time_level& run = current.times[level];
    run.times.insert(run.times.end(), times.begin(), times.end());
    if (run.times.size() < (level == 0 ? run_of_samples : run_of_steps)) {
        return;
    }
    if (level + 1 < current.times.size()) {
        std::vector<std::uint64_t> above;
        for (std::size_t i = steps_per_step - 1; i < run.times.size(); i += steps_per_step) {
            above.push_back(run.times[i]);
        }
        add_times(current, level + 1, above);
    }
    end_times(run);
}

void page_levels::end_times(time_level& level) {
    // Where the run's first step begins, and how long each takes.
    std::vector<double> steps{static_cast<double>(level.before - origin_)};
    for (const std::uint64_t time : level.times) {
        steps.push_back(static_cast<double>(time - level.before));
        level.before = time;
    }
    level.times.clear();
    level.lines.push_back(packed(run_of('d', std::span<const double>(steps))));
    size_ += level.lines.back().size();
}

void page_levels::keep(level_text& text, const std::vector<std::uint8_t>& bytes) {
    text.lines.push_back(packed(bytes));
    size_ += text.lines.back().size();
    while (size_ > limit_ && !victims_.empty()) {
        const victim& last = victims_.back();
        level_text& lost = text_of(last.sequence->columns[last.column], last.level);
        for (const std::string& line : lost.lines) {
            size_ -= line.size();
        }
        lost = {.lines = {}, .is_kept = false};
        victims_.pop_back();
    }
}

void page_levels::finish() {
    flush();
    for (auto& [number, current] : states_) {
        if (current.times.empty() || current.samples == 0) {
            continue;
        }
        if (current.samples % run_of_samples != 0) {
            end_run(current);
        }
        for (column& counter : current.columns) {
            for (std::size_t level = 1; level <= counter.levels.size(); ++level) {
                if (!counter.levels[level - 1].steps.empty()) {
                    end_step_run(counter, level);
                }
            }
        }
        for (std::size_t level = 0; level < current.times.size(); ++level) {
            time_level& run = current.times[level];
            if (run.times.empty()) {
                continue;
            }
            if (level + 1 < current.times.size()) {
                std::vector<std::uint64_t> above;
                for (std::size_t i = 0; i < run.times.size(); i += steps_per_step) {
                    above.push_back(
                        run.times[std::min<std::size_t>(i + steps_per_step, run.times.size()) - 1]);
                }
                std::vector<std::uint64_t>& next = current.times[level + 1].times;
                next.insert(next.end(), above.begin(), above.end());
            }
            end_times(run);
        }
    }
}

void page_levels::write(std::ostream& out) const {
    const auto element = [&out](std::size_t sequence, const std::string& what, std::size_t level,
                                const std::vector<std::string>& lines) {
        if (lines.empty()) {
            return;
        }
        out << R"(<script type="text/plain" id="level-)" << sequence << '-' << what << '-' << level
            << R"(">)";
        for (const std::string& line : lines) {
            out << line;
        }
        out << "</script>\n";
    };
    for (const auto& [number, current] : states_) {
        for (std::size_t level = 0; level < current.times.size(); ++level) {
            bool is_used = false;
            for (std::size_t i = 0; i < current.columns.size(); ++i) {
                const column& counter = current.columns[i];
                const level_text& text = level == 0 ? counter.sample_text : counter.levels[level - 1].text;
                is_used = is_used || !text.lines.empty();
                element(current.place, std::to_string(i), level, text.lines);
            }
            if (is_used) {
                element(current.place, "t", level, current.times[level].lines);
            }
        }
    }
}

}  // namespace qel::vexa::report
