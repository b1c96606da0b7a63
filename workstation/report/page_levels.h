// The samples of a trace in levels of detail, as the page unpacks them when they are looked at: the samples
// themselves, and above them steps of 16, of 256, and so on up to those of the overview. Each counter has of
// each level a text of its own, whose lines are runs of steps.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "workstation/report/summary.h"

namespace qel::vexa::report {

// Takes the samples of a trace that is summed up already, in a second reading. What it holds stays within a
// limit however long the trace is: the finest levels go first, those of the default selection last.
class page_levels : public ordered_listener {
public:
    static constexpr std::uint64_t steps_per_step = 16;
#ifdef COUNTERFEED_ZLIB
    static constexpr bool are_packed = true;
#else
    static constexpr bool are_packed = false;
#endif
    static constexpr std::size_t run_of_samples = 2048;
    static constexpr std::size_t run_of_steps = 1024;

    // The sequences outlive it, and have places from the first one on. The limit is one of bytes in the page.
    // The origin is the time 0 of the page.
    page_levels(const std::map<counter_source, sequence_summary>& sequences, selection wanted,
                std::uint64_t origin, std::size_t limit, std::size_t first_place = 0);

    void on_counters(std::uint32_t /*sequence*/,
                     const std::vector<counter_description>& /*counters*/) override {}

    void take(const counter_source& source, const counter_sample& sample) override;

    // To be called when the trace is read.
    void finish();

    // How many levels a sequence has below its overview.
    static std::size_t level_count(const sequence_summary& summary);

    // An element for each text, with the id "level-SEQUENCE-COUNTER-LEVEL": the places of the sequence and
    // the counter in their lists, and "t" for the times of a sequence in the place of a counter.
    void write(std::ostream& out) const;

private:
    struct level_text {
        std::vector<std::string> lines;
        bool is_kept = true;
    };
    struct step_run {
        std::vector<value_range> steps;
        level_text text;
    };
    struct column {
        std::vector<double> samples;  // of the run begun; not-a-number where there is none
        level_text sample_text;
        std::vector<step_run> levels;  // above the samples
    };
    struct time_level {
        std::vector<std::uint64_t> times;
        std::uint64_t before = 0;  // the last time of the run before
        std::vector<std::string> lines;
    };
    struct state {
        std::size_t place;
        std::map<std::uint32_t, std::size_t> index;  // of an id among the columns
        std::vector<column> columns;
        std::vector<time_level> times;  // of all levels
        std::uint64_t samples = 0;
        std::uint64_t last = 0;  // the time of the last sample
    };
    struct victim {
        state* sequence;
        std::size_t column;
        std::size_t level;
    };

    void end_run(state& current);
    void end_step_run(column& counter, std::size_t level);
    void add_steps(column& counter, std::size_t level, std::span<const value_range> steps);
    void add_times(state& current, std::size_t level, std::span<const std::uint64_t> times);
    void end_times(time_level& level);
    void keep(level_text& text, const std::vector<std::uint8_t>& bytes);
    static level_text& text_of(column& counter, std::size_t level);

    const std::uint64_t origin_;
    const std::size_t limit_;
    std::size_t size_ = 0;
    std::map<counter_source, state> states_;
    std::vector<victim> victims_;  // the next to go stands last
};

}  // namespace qel::vexa::report
