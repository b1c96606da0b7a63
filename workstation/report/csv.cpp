#include <cmath>
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

csv_writer::csv_writer(std::ostream& out, const trace_survey& survey, selection wanted, bool is_long)
    : ordered_listener(std::move(wanted)), out_(out), is_long_(is_long), first_(survey.first()) {
    const auto sequences = survey.sequences();
    has_sequences_ = sequences.size() > 1;
    std::map<std::pair<std::uint32_t, std::string>, std::size_t> known;
    std::map<std::string, std::size_t> uses;
    for (const auto& [sequence, counters] : sequences) {
        for (const counter_description& counter : counters) {
            if (!this->wanted().has(counter)) {
                continue;
            }
            const auto [entry, is_new] = known.try_emplace({counter.id, counter.name}, columns_.size());
            if (is_new) {
                ++uses[counter.name];
                columns_.push_back({counter, std::to_string(counter.id) + ',' +
                                                 command_line::csv_field(counter.name) + ',' +
                                                 command_line::csv_field(counter.unit()) + ','});
            }
            column_of_id_[sequence][counter.id] = entry->second;
        }
    }
    header_ = std::string("time_s,time_ns") + (has_sequences_ ? ",sequence" : "");
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

void csv_writer::take(std::uint32_t sequence, const counter_sample& sample) {
    out_ << std::exchange(header_, "");
    line_ = seconds(sample.timestamp - first_) + ',' + std::to_string(sample.timestamp);
    if (has_sequences_) {
        line_ += ',' + std::to_string(sequence);
    }
    const std::map<std::uint32_t, std::size_t>& columns = column_of_id_[sequence];
    row_.assign(columns_.size(), NAN);
    for (const counter_value& value : sample.values) {
        const auto found = columns.find(value.id);
        if (found != columns.end()) {
            row_[found->second] = value.value;
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
