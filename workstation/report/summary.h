// What a trace's counters did, in a bounded amount of memory however long the trace is.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "workstation/report/trace_file.h"

namespace qel::vexa::report {

struct value_range {
    double least = std::numeric_limits<double>::infinity();
    double most = -std::numeric_limits<double>::infinity();
    double sum = 0;
    std::uint64_t count = 0;

    void add(double value);
    void add(const value_range& other);
    double mean() const { return sum / static_cast<double>(count); }  // of one value or more
};

// A counter's values over the whole sequence and in each of its bins. Bins behind the last value are missing.
struct counter_series {
    counter_description counter;
    std::string block;  // what it is shown under, such as "Tiler"; "Derived" or "Other" if nothing is known
    value_range total;
    std::vector<value_range> bins;
};

// The samples of a sequence in bins: each but the last holds the same number of consecutive samples.
struct sequence_summary {
    std::vector<counter_series> series;  // block by block, in each the derived counters first
    std::uint64_t samples = 0;
    std::uint64_t samples_per_bin = 1;
    std::uint64_t first = 0;               // the time of the first sample in nanoseconds
    std::vector<std::uint64_t> bin_times;  // of the last sample in each bin; they never go back

    std::uint64_t last() const { return bin_times.empty() ? first : bin_times.back(); }
};

// Which counters and which samples are wanted.
struct selection {
    std::vector<std::string> names;  // a counter's name holds one of these, in any case; all when empty
    std::uint64_t from = 0;          // nanoseconds on the trace's clock
    std::uint64_t to = std::numeric_limits<std::uint64_t>::max();

    bool has(const counter_description& counter) const;
    bool has(const counter_sample& sample) const {
        return from <= sample.timestamp && sample.timestamp <= to;
    }
};

// Takes the samples of the wanted time, those of a sequence in the order of their times. A sample whose time
// does not fit between its neighbours' is left out.
class ordered_listener : public trace_listener {
public:
    explicit ordered_listener(selection wanted) : wanted_(std::move(wanted)) {}

    void on_sample(std::uint32_t sequence, const counter_sample& sample) final;
    // To be called when the trace is read: takes what was held back.
    void flush();

    std::uint64_t taken() const { return taken_; }
    std::uint64_t out_of_order() const { return out_of_order_; }

protected:
    const selection& wanted() const { return wanted_; }

private:
    struct state {
        counter_sample pending;  // taken once the next sample's time confirms its own
        bool has_pending = false;
        std::uint64_t last = 0;  // the time of the sample taken last
    };

    virtual void take(std::uint32_t sequence, const counter_sample& sample) = 0;
    void take_pending(std::uint32_t sequence, state& current);

    const selection wanted_;
    std::map<std::uint32_t, state> held_;
    std::uint64_t taken_ = 0;
    std::uint64_t out_of_order_ = 0;
};

// Sums up a trace while it is read.
class trace_summary : public ordered_listener {
public:
    // The bins are at most so many, an even number.
    trace_summary(std::size_t bin_limit, selection wanted);

    void on_counters(std::uint32_t sequence, const std::vector<counter_description>& counters) override;

    // To be called when the trace is read. By the number of the sequence.
    const std::map<std::uint32_t, sequence_summary>& finish();

    // Sequences whose counters are known by their ids only: a ring buffer drops the oldest packets first, and
    // the descriptions come first.
    std::uint64_t undescribed() const;

private:
    struct state {
        std::unordered_map<std::uint32_t, std::size_t> index;  // of an id in the summary's series
        bool is_described = false;
        std::uint64_t in_last_bin = 0;
    };

    void describe(std::uint32_t sequence, const counter_description& counter);
    void take(std::uint32_t sequence, const counter_sample& sample) override;

    const std::size_t bin_limit_;
    std::map<std::uint32_t, sequence_summary> sequences_;
    std::map<std::uint32_t, state> states_;
};

// What must be known of a trace before its samples are: one pass, which keeps no samples.
class trace_survey : public ordered_listener {
public:
    trace_survey() : ordered_listener({}) {}

    void on_counters(std::uint32_t sequence, const std::vector<counter_description>& counters) override;

    // The counters of each sequence that has samples, in the order of the samples.
    std::map<std::uint32_t, std::vector<counter_description>> sequences() const;
    // The time of the earliest sample in nanoseconds.
    std::uint64_t first() const { return first_; }

private:
    void take(std::uint32_t sequence, const counter_sample& sample) override;

    std::map<std::uint32_t, std::map<std::uint32_t, counter_description>> described_;
    std::map<std::uint32_t, std::vector<std::uint32_t>> ids_;
    std::uint64_t first_ = std::numeric_limits<std::uint64_t>::max();
};

// The description of a counter of which only the id is known.
counter_description unknown_counter(std::uint32_t id);

}  // namespace qel::vexa::report
