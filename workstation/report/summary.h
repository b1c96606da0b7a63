// What a trace's counters did, in a bounded amount of memory however long the trace is.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "workstation/report/formula.h"
#include "workstation/report/requested.h"
#include "workstation/report/trace_file.h"
#include "workstation/report/value_histogram.h"

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

// A sum of values, each times the weight that it has among its neighbours.
struct weighted_sum {
    double sum = 0;
    double weight = 0;

    void add(double value, double its_weight) {
        sum += value * its_weight;
        weight += its_weight;
    }
    void add(const weighted_sum& other) {
        sum += other.sum;
        weight += other.weight;
    }
};

// What the value of a counter over a span rests on.
enum class weighting {
    exact,          // sums: its own, or those of its operands
    divisor,        // its samples, weighted with what they were divided by
    active_cycles,  // its samples, weighted with the GPU's active cycles
    time,           // its samples, weighted with the time that each stands for
};

// "exact" and its like.
std::string_view weighting_name(weighting how);

// A counter's values over the whole sequence and in each of its bins. Bins behind the last value are missing.
struct counter_series {
    counter_description counter;
    std::string block;  // what it is shown under, such as "Tiler"; "Other" if nothing is known
    counter_kind kind = counter_kind::amount;
    weighting weighed = weighting::exact;
    formula expression;  // of a derived counter all of whose operands the trace holds
    value_range total;
    std::vector<value_range> bins;
    weighted_sum total_weight;          // unless the value is exact
    std::vector<weighted_sum> weights;  // of each bin, likewise
    formula weight;                     // what its samples are then weighed by; empty for the time
    value_histogram histogram;
    std::uint64_t first = 0;  // the times of its first and last value in nanoseconds
    std::uint64_t last = 0;

    // The seconds that its values stand for: each for the time up to it, the first for as long as the others
    // do on average. 0 of fewer than two values.
    double duration() const;
};

// Who wrote samples, and of which GPU, for a trace can hold several of both.
struct counter_source {
    std::uint32_t sequence = 0;
    std::uint32_t gpu = 0;

    // The check takes the 0 that orders are compared with for a pointer.
    // NOLINTNEXTLINE(modernize-use-nullptr)
    auto operator<=>(const counter_source&) const = default;
};

// What a counter comes to over a span: from its own values there, or those weighted, or the sums that others
// have there. Nothing where it has no value.
std::optional<double> value_over(const counter_series& of, const value_range& own,
                                 const weighted_sum& weighted, const formula::source& sum_of);

// The weight of a sample whose values these are. A number of the GPU's is the same in all weights, and need
// not be known.
double sample_weight(const formula& weight, const formula::source& value_of);

// The samples of a source in bins: each but the last holds the same number of consecutive samples.
struct sequence_summary {
    std::vector<counter_series> series;    // block by block, in each the derived counters first
    std::vector<counter_series> unwanted;  // what only the expressions of others need
    bool is_known = false;                 // its counters are those of a GPU in the catalogue
    std::string gpu_name;                  // as the trace tells it, or empty
    std::uint64_t samples = 0;
    std::uint64_t samples_per_bin = 1;
    std::uint64_t first = 0;               // the time of the first sample in nanoseconds
    std::vector<std::uint64_t> bin_times;  // of the last sample in each bin; they never go back

    std::uint64_t last() const { return bin_times.empty() ? first : bin_times.back(); }

    // The series of a counter, wanted or not; null when it has none.
    const counter_series* find(std::uint32_t id) const;

    // A counter over the bins from first up to, not including, end; over everything when all is left out. An
    // amount's is its sum, any other's what it comes to: nothing where there is no value.
    std::optional<double> value(const counter_series& of) const;
    // An expression over the sums of its operands in these bins; nothing when one of them has no values at
    // all.
    std::optional<double> evaluate(const formula& expression, std::size_t first_bin,
                                   std::size_t end_bin) const;
    std::optional<double> value(const counter_series& of, std::size_t first_bin, std::size_t end_bin) const;

    std::map<std::uint32_t, std::pair<bool, std::size_t>> places;  // of an id: wanted, and its index

private:
    // What an expression over these bins takes for a counter; nothing when it has no values at all.
    std::optional<double> operand(std::uint32_t id, std::size_t first_bin, std::size_t end_bin) const;
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

// Takes the samples of the wanted time, those of a source in the order of their times as far as a window of
// samples reaches; what comes later than that is given late. Samples of the same time with different counters
// are made one: some producers write each counter by itself. A time that is a minute and more from those
// before and behind it, while these are close to each other, is damaged, and its sample left out.
class ordered_listener : public trace_listener {
public:
    explicit ordered_listener(selection wanted) : wanted_(std::move(wanted)) {}

    void on_sample(std::uint32_t sequence, const counter_sample& sample) final;
    // To be called when the trace is read: takes what was held back.
    void flush();

    std::uint64_t taken() const { return taken_; }
    std::uint64_t left_out() const { return left_out_; }

    // The next sample, in order. Where several take the same samples, one of them puts these in order, and
    // hands them on.
    virtual void take(const counter_source& source, const counter_sample& sample) = 0;

protected:
    const selection& wanted() const { return wanted_; }

private:
    struct state {
        counter_sample pending;  // goes on once the next sample's time confirms its own
        bool has_pending = false;
        std::uint64_t before = 0;  // the time of the sample before that
        bool has_before = false;
        std::multimap<std::uint64_t, counter_sample> window;
        std::size_t values = 0;  // in the window
    };

    void hold(const counter_source& source, state& current);
    void take_first(const counter_source& source, state& current);

    const selection wanted_;
    std::map<counter_source, state> held_;
    std::uint64_t taken_ = 0;
    std::uint64_t left_out_ = 0;
};

// Sums up a trace while it is read.
class trace_summary : public ordered_listener {
public:
    // The bins are at most so many, an even number.
    trace_summary(std::size_t bin_limit, selection wanted);

    void on_counters(std::uint32_t sequence, const std::vector<counter_description>& counters) override;
    void on_gpus(const std::vector<std::string>& names) override { gpu_names_ = names; }
    void on_config(std::string_view config) override { requested_.add_config(config); }

    // To be called when the trace is read.
    const std::map<counter_source, sequence_summary>& finish();

    // Of what is finished: forgets all sources but the one with the most samples, which is given; and makes
    // bins fewer, each two one, until they are at most so many.
    const sequence_summary& keep_largest();
    void coarsen(std::size_t bin_limit);

    // Sources some of whose counters are known by their ids only: a ring buffer drops the oldest packets
    // first, and the descriptions come first.
    std::uint64_t undescribed() const;

    // In words, counters that the session was asked to record and that the GPU does not have.
    std::vector<std::string> missing() const { return requested_.missing(); }

private:
    struct state {
        std::unordered_map<std::uint32_t, std::size_t> index;  // of an id in the summary's series
        bool is_planned = false;
        std::uint64_t in_last_bin = 0;
        // How those are weighed that are not exact.
        struct weigher {
            std::size_t series;
            double first_value = 0;
            std::size_t first_bin = 0;
            std::uint64_t last = 0;  // the time of the last value
        };
        std::vector<weigher> weighers;
        std::vector<double> values;  // of the sample in hand, by series; not-a-number where it has none
    };

    void describe(const counter_source& source, const counter_description& counter);
    static void plan(state& current, sequence_summary& summary);
    void start_bin(state& current, sequence_summary& summary) const;
    static void weigh(state& current, sequence_summary& summary, std::size_t bin, std::uint64_t time);
    void take(const counter_source& source, const counter_sample& sample) override;

    const std::size_t bin_limit_;
    std::map<counter_source, sequence_summary> sequences_;
    std::map<counter_source, state> states_;
    std::vector<std::string> gpu_names_;
    requested_counters requested_;
    bool is_finished_ = false;
};

// What must be known of a trace before its samples are: one pass, which keeps no samples.
class trace_survey : public ordered_listener {
public:
    trace_survey() : ordered_listener({}) {}

    void on_counters(std::uint32_t sequence, const std::vector<counter_description>& counters) override;

    // The counters of each source that has samples, in the order of the samples.
    std::map<counter_source, std::vector<counter_description>> sequences() const;
    // The time of the earliest sample in nanoseconds.
    std::uint64_t first() const { return first_; }

private:
    void take(const counter_source& source, const counter_sample& sample) override;

    std::map<counter_source, std::map<std::uint32_t, counter_description>> described_;
    std::map<counter_source, std::vector<std::uint32_t>> ids_;
    std::uint64_t first_ = std::numeric_limits<std::uint64_t>::max();
};

// The description of a counter of which only the id is known.
counter_description unknown_counter(std::uint32_t id);

}  // namespace qel::vexa::report
