// GPU counters read back from a recorded trace.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "workstation/protocol/counter_description.h"
#include "workstation/protocol/service_state.h"

namespace qel::vexa::report {

using protocol::counter_description;
using protocol::read_offered_counters;

struct counter_value {
    std::uint32_t id;
    double value;
};

struct counter_sample {
    std::uint64_t timestamp;  // nanoseconds on the device's CLOCK_MONOTONIC_RAW
    std::vector<counter_value> values;
    std::uint32_t gpu = 0;
};

// Bytes of a file that can't be read, and why.
struct unreadable_part {
    std::uint64_t offset;
    std::uint64_t size;
    std::string reason;
};

// Takes what a trace holds while it is read. Each sampling thread wrote a sequence of its own, with a number
// that the service gave it: a session also receives what its neighbours write.
class trace_listener {
public:
    virtual ~trace_listener() = default;

    // What a sequence's samples hold, in their order. It comes before them unless it was lost.
    virtual void on_counters(std::uint32_t sequence, const std::vector<counter_description>& counters) = 0;
    virtual void on_sample(std::uint32_t sequence, const counter_sample& sample) = 0;
    // The names of the trace's GPUs, by their numbers.
    virtual void on_gpus(const std::vector<std::string>& /*names*/) {}
    // What the session was asked to record, as a TraceConfig.
    virtual void on_config(std::string_view /*config*/) {}
    // Times of one moment on several clocks, as a ClockSnapshot.
    virtual void on_clocks(std::string_view /*snapshot*/) {}
    // A FrameTimelineEvent, with the time of its packet and the number of the clock that it is on.
    virtual void on_frame_event(std::uint64_t /*time*/, std::uint32_t /*clock*/, std::string_view /*event*/) {
    }
    // A GraphicsFrameEvent, likewise.
    virtual void on_buffer_event(std::uint64_t /*time*/, std::uint32_t /*clock*/,
                                 std::string_view /*event*/) {}
    virtual void on_unreadable(const unreadable_part& /*part*/) {}
    // Now and then: the number of bytes that are behind the reader.
    virtual void on_progress(std::uint64_t /*bytes*/) {}
};

// Reads a trace, compressed with gzip or not, from the stream's position to its end, a piece at a time: it
// never holds more than a packet of the largest size. Where bytes are damaged it goes on at the next place
// where a packet begins. Gives the number of whole packets, of any kind; none means that this is no trace.
std::uint64_t read_trace(std::istream& file, trace_listener& listener);

struct counter_sequence {
    std::vector<counter_description> counters;  // in the order in which the samples have them
    std::vector<counter_sample> samples;
};

// The sequences of a short trace, by number. A trace that was cut short gives what is whole of it. Nothing
// when the bytes are not a trace at all.
std::optional<std::map<std::uint32_t, counter_sequence>> read_counters(const std::string& trace);

// A file's bytes; nothing, and the reason in errno, when it can't be read.
std::optional<std::string> read_file(const char* path);

}  // namespace qel::vexa::report
