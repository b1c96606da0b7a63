// Any bytes as a trace: read, summed up and shown in all forms. What is not readable lies within the bytes,
// in order, and the bins hold every sample once.

#include <cstdint>
#include <cstdlib>
#include <sstream>

#include "workstation/report/compare.h"
#include "workstation/report/summary.h"
#include "workstation/report/writers.h"

namespace {

using namespace qel::vexa::report;  // NOLINT(google-build-using-namespace)

class checked_summary : public trace_summary {
public:
    using trace_summary::trace_summary;

    void on_unreadable(const unreadable_part& part) override {
        // Nothing is left of a compressed file where it can't be read on.
        if (part.offset < end || (part.size == 0 && !is_compressed) || part.reason.empty()) {
            std::abort();
        }
        end = part.offset + part.size;
    }

    std::uint64_t end = 0;
    bool is_compressed = false;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::istringstream file(std::string(reinterpret_cast<const char*>(data), size));
    checked_summary summary(4, {});
    summary.is_compressed = size > 1 && data[0] == 0x1f && data[1] == 0x8b;
    read_trace(file, summary);
    if (summary.end > size && !summary.is_compressed) {
        std::abort();
    }
    const auto& sequences = summary.finish();
    for (const auto& [number, sequence] : sequences) {
        for (const counter_series& series : sequence.series) {
            std::uint64_t count = 0;
            for (const value_range& bin : series.bins) {
                count += bin.count;
            }
            if (sequence.bin_times.size() > 4 || series.bins.size() > sequence.bin_times.size() ||
                count != series.total.count) {
                std::abort();
            }
        }
    }
    std::ostringstream out;
    write_summary(out, sequences, {.width = 80, .charts = chart_style::blocks, .all = true});
    const page_source source{
        .file = "input", .file_size = size, .sequences = sequences, .problems = summary.missing()};
    write_page(out, source);
    write_json(out, source);
    std::vector<const sequence_summary*> all;
    for (const auto& [from, sequence] : sequences) {
        all.push_back(&sequence);
    }
    const comparison result = compare(all, all);
    for (const compared_counter& counter : result.counters) {
        if (counter.is_changed) {
            std::abort();
        }
    }
    write_comparison(out, {.before = {}, .after = {}, .result = result, .failed = {}},
                     {.width = 20, .all = true});
    trace_survey survey;
    file.clear();
    file.seekg(0);
    read_trace(file, survey);
    survey.flush();
    csv_writer csv(out, survey, {}, false);
    file.clear();
    file.seekg(0);
    read_trace(file, csv);
    csv.flush();
    return 0;
}
