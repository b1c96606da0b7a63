// Two recordings of a workload side by side: what changed between them, and what may be chance.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "workstation/report/summary.h"
#include "workstation/report/writers.h"

namespace qel::vexa::report {

// Of all comparisons of recordings between which nothing changed, at most this share calls any counter
// changed.
inline constexpr double comparison_level = 0.05;

struct compared_counter {
    std::string name;
    std::uint32_t before_id;  // in the first trace of its side
    std::uint32_t after_id;
    std::string block;
    std::string unit;  // in words; of an amount per second
    counter_kind kind;
    bool is_selected;
    double before;  // an amount per second, anything else what it comes to
    double after;
    // The interval that holds the change with a probability of 95 %, for this counter alone; nothing when a
    // side is too short to tell.
    std::optional<double> low;
    std::optional<double> high;
    double p = 1;  // how often chance alone makes a change as large as this
    bool is_changed = false;

    double change() const { return after - before; }
    // In per cent of what was before; not finite when that was nothing.
    double change_percent() const;
};

struct comparison {
    std::vector<compared_counter> counters;  // what changed most first, and behind it what may be chance
    std::vector<std::string> only_before;    // counters without one of the same name, kind and unit
    std::vector<std::string> only_after;
};

// Each side is the summaries of one trace or of several of the same workload; those must outlive nothing.
//
// A trace is cut into 32 batches of equal length, or fewer if it has fewer bins. A counter is taken as a
// ratio of two sums, an amount over time, a percentage over what it is a percentage of, and what its batches
// deviate from the ratio of the whole gives its standard error. As long as neighbouring batches have much in
// common, each two are made one, down to four. Where a side has several traces, the error is at least what
// these differ by. The difference of the sides is judged by Student's t with Welch's degrees of freedom, and
// Holm's procedure keeps the level over all counters. A difference of less than 0.01 % is no change, whatever
// chance says: rounding makes as much.
//
// So it assumes that each trace is a stretch of a workload that goes on in the same way, with many periods of
// what repeats in it. What differs between two runs but not within one, such as the temperature, counts as
// change: only several traces on each side show that it is none.
comparison compare(const std::vector<const sequence_summary*>& before,
                   const std::vector<const sequence_summary*>& after);

// The limit of a gate, such as "External read bytes > +5%".
class gate {
public:
    // Nothing when the text is no limit.
    static std::optional<gate> parse(const std::string& text);

    const std::string& text() const { return text_; }
    bool is_for(const compared_counter& counter) const;
    // Whether the change is larger than allowed, and more than chance.
    bool fails(const compared_counter& counter) const;

private:
    std::string text_;
    std::string name_;  // a counter's name holds it, in any case
    bool is_above_ = true;
    double bound_ = 0;
    bool is_percent_ = false;
};

struct comparison_output {
    std::vector<std::string> before;  // the traces' names
    std::vector<std::string> after;
    const comparison& result;
    std::vector<std::string> failed;  // in words, each gate that fails
};

// "+5.2 %"; "new" of what was nothing before.
std::string change_text(const compared_counter& counter);

// What changed beyond chance, or with options.all every counter.
void write_comparison(std::ostream& out, const comparison_output& what, const terminal_options& options);
nlohmann::ordered_json comparison_in_json(const comparison_output& what);

}  // namespace qel::vexa::report
