// Counters over the frames of a trace, and what its longest frames have in common.
#pragma once

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "workstation/report/figures.h"
#include "workstation/report/frames.h"
#include "workstation/report/summary.h"
#include "workstation/report/writers.h"

namespace qel::vexa::report {

// A counter over a layer's longest frames and over its other ones.
struct contrast {
    const counter_series* series;
    double longest;
    double others;
};

struct layer_contrast {
    std::string layer;
    std::vector<std::size_t> longest;  // the frames' places, the longest first
    std::vector<contrast> common;      // what differs most first
};

// Sums up the samples of each frame in a second reading, those that end within it: behind its start, and up
// to its end. What it holds does not grow with the trace's length; of more than 1024 frames that go on at a
// time the later ones are left out, and of more than 64 layers the later ones have no contrast.
//
// The contrast: of the counters of the default selection, or those wanted by name, whose samples differ, the
// eight whose value over the ten longest frames of a layer, taken together, has the largest ratio to that
// over all others, up or down. Amounts are per second.
class frame_reader : public ordered_listener {
public:
    // A frame's samples, and a value for each of the wanted counters.
    using row_listener = std::function<void(std::size_t frame, std::uint64_t samples,
                                            const std::vector<std::optional<double>>& values)>;

    // The summary, of the source whose samples count, and the frames, by their starts, outlive it. Rows come
    // in the order in which the frames end.
    frame_reader(const counter_source& source, const sequence_summary& summary, selection wanted,
                 const std::vector<frame>& frames, std::vector<const counter_series*> columns,
                 amount_form amounts, row_listener on_row);

    void on_counters(std::uint32_t /*sequence*/,
                     const std::vector<counter_description>& /*counters*/) override {}

    void take(const counter_source& source, const counter_sample& sample) override;

    // To be called when the trace is read: gives the layers in the order in which they begin.
    std::vector<layer_contrast> finish();
    std::uint64_t left_out() const { return left_out_; }

private:
    struct counter_sums {
        value_range own;
        weighted_sum weighted;
    };
    using all_sums = std::vector<counter_sums>;  // by the counters' places
    struct open_frame {
        std::size_t place;
        std::uint64_t samples = 0;
        all_sums sums;
    };
    struct layer_state {
        layer_contrast found;
        all_sums longest, others;
    };

    void begin_until(std::uint64_t time);
    void end_before(std::uint64_t time);
    void end(open_frame& ended);
    std::optional<double> value(const counter_series& of, const all_sums& sums, amount_form form) const;

    const counter_source source_;
    const sequence_summary& summary_;
    const std::vector<frame>& frames_;
    const std::vector<const counter_series*> columns_;
    const amount_form amounts_;
    const row_listener on_row_;
    std::vector<const counter_series*> series_;
    std::unordered_map<std::uint32_t, std::size_t> places_;  // among the series, of an id
    std::vector<std::uint64_t> last_times_;                  // of the series' values; 0 of none
    std::vector<double> values_;                             // of the sample in hand
    std::vector<open_frame> open_;
    std::size_t next_ = 0;
    std::vector<layer_state> layers_;
    std::vector<std::size_t> layer_of_;  // of each frame
    std::vector<bool> is_longest_;
    std::uint64_t left_out_ = 0;
};

// "Scene: 300 frames, 12 late, the longest 18.20 ms; display: ...".
std::string frames_in_words(const std::vector<frame>& frames);

// What "--by-frame" writes: a line for each frame, and what the longest have in common.
struct by_frame_source {
    std::string file;
    counter_source source;
    const sequence_summary& summary;
    const std::vector<frame>& frames;
    amount_form amounts;
    std::vector<const counter_series*> columns;
};

// Writes rows as they come, and the rest when the frames are through.
class by_frame_writer {
public:
    virtual ~by_frame_writer() = default;
    virtual void row(std::size_t frame, std::uint64_t samples,
                     const std::vector<std::optional<double>>& values) = 0;
    virtual void finish(const std::vector<layer_contrast>& layers) = 0;
};
// A line for each frame with layer, frame (its number in its layer), token, start_s (since the first sample),
// start_ns, duration_ms, expected_ms (empty when nothing was expected of it), jank, dropped, samples, and a
// column for each counter.
std::unique_ptr<by_frame_writer> by_frame_csv(std::ostream& out, const by_frame_source& what);
std::unique_ptr<by_frame_writer> by_frame_json(std::ostream& out, const by_frame_source& what);
std::unique_ptr<by_frame_writer> by_frame_table(std::ostream& out, const by_frame_source& what,
                                                const terminal_options& options);

}  // namespace qel::vexa::report
