// The frames of a trace: when the display and each surface had them ready, and which were late, from its
// frame timeline, or else from the marks that the compositor sets on a frame's way through a buffer.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

namespace qel::vexa::report {

struct frame {
    std::uint64_t start;  // nanoseconds on CLOCK_MONOTONIC_RAW, as samples have them
    std::uint64_t end;
    std::uint64_t expected_end;  // 0 when nothing was expected of it
    std::int64_t token;
    std::string layer;   // empty for the display's
    std::uint32_t jank;  // bits as in the tracing protocol's JankType: 0 is not judged, 1 means none
    bool is_dropped;
};

// What makes a frame late, by the bits of its jank from the second on.
inline constexpr std::array jank_reasons{"scheduling of the compositor",
                                         "a wrong prediction",
                                         "the display's driver",
                                         "the compositor's CPU deadline",
                                         "the compositor's GPU deadline",
                                         "the application's deadline",
                                         "stuffed buffers",
                                         "an unknown reason",
                                         "a stuffed compositor"};

// A layer's name; "display" for the display's own frames.
std::string layer_name(const std::string& layer);
// What the trace says of a frame: "on time", what made it late or dropped, or "not judged".
bool is_late(const frame& one);
std::string jank_text(const frame& one);

struct frame_layer {
    std::string name;
    std::size_t frames = 0;
    std::size_t late = 0;
    std::uint64_t longest = 0;  // nanoseconds
};
// In the order in which they begin.
std::vector<frame_layer> layers_of(std::span<const frame> frames);

// Each frame's number in its layer, from 1 on.
std::vector<std::size_t> numbers_of(std::span<const frame> frames);

// Takes the frames of a trace while it is read, in a bounded amount of memory: of more frames than
// the limit the shortest are left out.
class frame_collector {
public:
    // An hour of two layers at 60 Hz has 432000.
    static constexpr std::size_t most_frames = std::size_t{1} << 19;

    explicit frame_collector(std::size_t limit = most_frames) : limit_(limit) {}

    // A ClockSnapshot.
    void on_clocks(std::string_view snapshot);
    // A FrameTimelineEvent, with its packet's time and clock.
    void on_timeline_event(std::uint64_t time, std::uint32_t clock, std::string_view event);

    // A GraphicsFrameEvent, with its packet's time and clock. Where there is a frame timeline it says more,
    // and is what counts.
    void on_buffer_event(std::uint64_t time, std::uint32_t clock, std::string_view event);

    // To be called when the trace is read: the frames by their starts. Those whose clock no snapshot has are
    // left out.
    std::vector<frame> finish();
    std::uint64_t left_out() const { return left_out_; }

private:
    struct started {
        frame begun;
        std::int64_t display_token;
        std::uint32_t clock;
        bool is_expected;
    };
    struct finished {
        frame whole;
        std::uint32_t clock;
    };

    // The clock, the layer and the number of a buffer.
    using buffer = std::tuple<std::uint32_t, std::string, std::uint32_t>;

    void add(finished&& one);
    void leave_out_shortest();

    const std::size_t limit_;
    // Of each clock, by its time, the time of CLOCK_MONOTONIC_RAW.
    std::map<std::uint32_t, std::map<std::uint64_t, std::uint64_t>> raw_time_;
    std::map<std::int64_t, started> started_;  // by cookie
    std::map<std::pair<std::string, std::int64_t>, std::uint64_t> expected_ends_;
    std::map<buffer, std::set<std::uint64_t>> dequeued_;  // when: the latest ones of each
    bool has_timeline_ = false;
    std::vector<finished> finished_;
    std::uint64_t left_out_ = 0;
};

}  // namespace qel::vexa::report
