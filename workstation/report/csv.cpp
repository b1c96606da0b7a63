#include <cmath>
#include <optional>
#include <ostream>
#include <set>
#include <utility>

#include "workstation/command_line/output.h"
#include "workstation/report/writers.h"

namespace qel::vexa::report {

namespace {

// Nanoseconds as seconds, with all digits.
std::string seconds(std::uint64_t nanoseconds) {
    constexpr std::uint64_t second = 1'000'000'000;
    std::string fraction = std::to_string(second + nanoseconds % second);
    fraction[0] = '.';
    return std::to_string(nanoseconds / second) + fraction;
}

}  // namespace

csv_writer::csv_writer(std::ostream& out, const trace_survey& survey, selection wanted, bool is_long,
                       amount_form amounts)
    : ordered_listener(std::move(wanted)),
      out_(out),
      is_long_(is_long),
      amounts_(amounts),
      first_(survey.first()) {
    const auto sources = survey.sequences();
    std::set<std::uint32_t> sequences;
    std::set<std::uint32_t> gpus;
    std::map<std::pair<std::uint32_t, std::string>, std::size_t> known;
    std::map<std::string, std::size_t> uses;
    for (const auto& [source, counters] : sources) {
        sequences.insert(source.sequence);
        gpus.insert(source.gpu);
        const std::optional<known_counters> catalogue = recognise(counters);
        for (const counter_description& counter : counters) {
            if (!this->wanted().has(counter)) {
                continue;
            }
            const bool is_amount = kind_of(counter, catalogue) == counter_kind::amount;
            const auto [entry, is_new] = known.try_emplace({counter.id, counter.name}, columns_.size());
            if (is_new) {
                ++uses[counter.name];
                const std::string unit =
                    unit_in_words(counter, is_amount && amounts_ == amount_form::per_second);
                columns_.push_back({counter, std::to_string(counter.id) + ',' +
                                                 command_line::csv_field(counter.name) + ',' +
                                                 command_line::csv_field(unit) + ','});
            }
            cells_[source][counter.id] = {.column = entry->second, .is_amount = is_amount};
        }
    }
    has_sequences_ = sequences.size() > 1;
    has_gpus_ = gpus.size() > 1;
    header_ = std::string("time_s,time_ns") + (has_sequences_ ? ",sequence" : "") + (has_gpus_ ? ",gpu" : "");
    if (is_long_) {
        header_ += ",id,counter,unit,value";
    } else {
        for (const column& each : columns_) {
            const std::string& name = each.counter.name;
            header_ += ',' + command_line::csv_field(
                                 uses[name] > 1 ? name + " (" + std::to_string(each.counter.id) + ")" : name);
        }
    }
    header_ += '\n';
}

// In the form that is wanted; not-a-number where there is no value in that form.
double csv_writer::shown(cell& which, double value, std::uint64_t time) const {
    const std::uint64_t before = std::exchange(which.before, time);
    if (!which.is_amount || amounts_ == amount_form::per_sample) {
        return value;
    }
    if (amounts_ == amount_form::total) {
        which.sum += std::isfinite(value) ? value : 0;
        return which.sum;
    }
    return before != 0 && before < time ? value / (static_cast<double>(time - before) / 1e9) : NAN;
}

void csv_writer::take(const counter_source& source, const counter_sample& sample) {
    out_ << std::exchange(header_, "");
    line_ = seconds(sample.timestamp - first_) + ',' + std::to_string(sample.timestamp);
    if (has_sequences_) {
        line_ += ',' + std::to_string(source.sequence);
    }
    if (has_gpus_) {
        line_ += ',' + std::to_string(source.gpu);
    }
    std::map<std::uint32_t, cell>& cells = cells_[source];
    row_.assign(columns_.size(), NAN);
    for (const counter_value& value : sample.values) {
        const auto found = cells.find(value.id);
        if (found != cells.end()) {
            row_[found->second.column] = shown(found->second, value.value, sample.timestamp);
        }
    }
    const std::size_t times = line_.size();
    for (std::size_t i = 0; i < row_.size(); ++i) {
        if (is_long_) {
            if (std::isfinite(row_[i])) {
                line_.resize(times);
                out_ << line_ << ',' << columns_[i].prefix << exact_number(row_[i]) << '\n';
            }
        } else {
            line_ += ',';
            if (std::isfinite(row_[i])) {
                line_ += exact_number(row_[i]);
            }
        }
    }
    if (!is_long_) {
        out_ << line_ << '\n';
    }
}

}  // namespace qel::vexa::report
