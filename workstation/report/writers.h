// The forms in which a trace's counters are shown.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "workstation/report/figures.h"
#include "workstation/report/frames.h"
#include "workstation/report/page_levels.h"
#include "workstation/report/summary.h"
#include "workstation/report/trace_file.h"

namespace qel::vexa::report {

struct comparison_output;
struct layer_contrast;

// The shortest decimal text that reads back as the same number.
std::string exact_number(double value);

enum class chart_style { none, ascii, blocks };

struct terminal_options {
    std::size_t width = 0;  // in characters; 0 when lines may be as long as they want
    chart_style charts = chart_style::none;
    bool bold_headings = false;
    bool all = false;  // not just the selection of a trace that holds very many counters
    amount_form amounts = amount_form::per_second;
    bool limits = true;  // says what limits the workload
};

// A line for each counter, by hardware block.
void write_summary(std::ostream& out, const std::map<counter_source, sequence_summary>& sequences,
                   const terminal_options& options);

// Writes a trace's samples as comma-separated values while the trace is read, before the first a line with
// the names of the columns. The seconds count from the earliest sample of the whole trace.
//
// Wide: a line for each sample with time_s, time_ns, and a column for each counter, named like it. Long: a
// line for each value, with time_s, time_ns, id, counter, unit, value. Both have a column "sequence" behind
// the times when the trace has several sequences, and "gpu" when it has several GPUs; a counter that a
// sequence lacks is left empty. Amounts are those of the sample; or per second since the counter's value
// before, which the first lacks; or the sum of all so far.
class csv_writer : public ordered_listener {
public:
    csv_writer(std::ostream& out, const trace_survey& survey, selection wanted, bool is_long,
               amount_form amounts = amount_form::per_sample);

    void on_counters(std::uint32_t /*sequence*/,
                     const std::vector<counter_description>& /*counters*/) override {}

private:
    void take(const counter_source& source, const counter_sample& sample) override;

    struct column {
        counter_description counter;
        std::string prefix;  // what stands before the value in the long form
    };
    // A counter of a source.
    struct cell {
        std::size_t column = 0;
        bool is_amount = false;
        std::uint64_t before = 0;  // the time of the last value; 0 of none
        double sum = 0;
    };
    double shown(cell& which, double value, std::uint64_t time) const;

    std::ostream& out_;
    const bool is_long_;
    const amount_form amounts_;
    const std::uint64_t first_;
    bool has_sequences_;
    bool has_gpus_;
    std::string header_;  // until it is written
    std::vector<column> columns_;
    std::map<counter_source, std::map<std::uint32_t, cell>> cells_;  // by id
    std::vector<double> row_;
    std::string line_;
};

struct page_source {
    std::string file;  // the trace's name
    std::uint64_t file_size;
    const std::map<counter_source, sequence_summary>& sequences;
    std::vector<std::string> problems;  // what could not be read or is missing, in words
    std::span<const frame> frames;      // by their starts
    amount_form amounts = amount_form::per_second;
    // Of a page alone; the contrasts are of each sequence that has samples, and none without frames.
    const page_levels* levels = nullptr;
    const std::vector<std::vector<layer_contrast>>* contrasts = nullptr;
};

// Everything that the summary knows, as one JSON object. Names stay; "version" counts up when one must
// change.
void write_json(std::ostream& out, const page_source& source);

// The time 0 of a page: that of the earliest sample.
std::uint64_t page_origin(const std::map<counter_source, sequence_summary>& sequences);

// A page shows so many frames, and of more the longest.
inline constexpr std::size_t most_page_frames = 65536;

// About how many bytes a page of a trace with so many frames has without its levels of detail.
std::size_t page_base_size(const std::map<counter_source, sequence_summary>& sequences, std::size_t frames);

// Two recordings to be shown over each other, each from its own beginning on.
struct page_comparison {
    const page_source& after;  // its levels are those of the sequences behind the first ones
    const comparison_output& result;
};

// One HTML page with everything in it: it opens from disk and asks no network for anything. With a comparison
// it is one of both traces, of which each has one sequence.
void write_page(std::ostream& out, const page_source& source, const page_comparison* compared = nullptr);

}  // namespace qel::vexa::report
