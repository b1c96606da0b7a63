// The forms in which a trace's counters are shown.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <map>
#include <string>
#include <vector>

#include "workstation/report/page_levels.h"
#include "workstation/report/summary.h"
#include "workstation/report/trace_file.h"

namespace qel::vexa::report {

// Short enough for a column, and exact for small whole numbers: "12", "99.3", "1.25 M".
std::string short_number(double value);

// The shortest decimal text that reads back as the same number.
std::string exact_number(double value);

enum class chart_style { none, ascii, blocks };

struct terminal_options {
    std::size_t width = 0;  // in characters; 0 when lines may be as long as they want
    chart_style charts = chart_style::none;
    bool bold_headings = false;
    bool all = false;  // not just the counters that are selected by default
};

// A line for each counter, by hardware block.
void write_summary(std::ostream& out, const std::map<std::uint32_t, sequence_summary>& sequences,
                   const terminal_options& options);

// Writes a trace's samples as comma-separated values while the trace is read, before the first a line with
// the names of the columns. The seconds count from the earliest sample of the whole trace.
//
// Wide: a line for each sample with time_s, time_ns, and a column for each counter, named like it. Long: a
// line for each value, with time_s, time_ns, id, counter, unit, value. Both have a column "sequence" behind
// the times when the trace has several sequences; a counter that a sequence lacks is left empty.
class csv_writer : public ordered_listener {
public:
    csv_writer(std::ostream& out, const trace_survey& survey, selection wanted, bool is_long);

    void on_counters(std::uint32_t /*sequence*/,
                     const std::vector<counter_description>& /*counters*/) override {}

private:
    void take(std::uint32_t sequence, const counter_sample& sample) override;

    struct column {
        counter_description counter;
        std::string prefix;  // what stands before the value in the long form
    };

    std::ostream& out_;
    const bool is_long_;
    const std::uint64_t first_;
    bool has_sequences_;
    std::string header_;  // until it is written
    std::vector<column> columns_;
    // Of each sequence, the column of an id.
    std::map<std::uint32_t, std::map<std::uint32_t, std::size_t>> column_of_id_;
    std::vector<double> row_;
    std::string line_;
};

struct page_source {
    std::string file;  // the trace's name
    std::uint64_t file_size;
    const std::map<std::uint32_t, sequence_summary>& sequences;
    std::vector<std::string> problems;  // what could not be read, in words
    const page_levels& levels;
};

// The time 0 of a page: that of the earliest sample.
std::uint64_t page_origin(const std::map<std::uint32_t, sequence_summary>& sequences);

// About how many bytes a page has without its levels of detail.
std::size_t page_base_size(const std::map<std::uint32_t, sequence_summary>& sequences);

// One HTML page with everything in it: it opens from disk and asks no network for anything.
void write_page(std::ostream& out, const page_source& source);

}  // namespace qel::vexa::report
