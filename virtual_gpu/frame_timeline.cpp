// Offers the frame timeline of the virtual GPU's scene to the tracing service, as the compositor of a device
// does, until it is killed.
//
// The application's frames last from their beginning until the GPU is done with them, the display's from the
// compositor's waking up until they are seen. A few are late.

#include <perfetto.h>
#include <unistd.h>

#include <cstdint>
#include <ctime>
#include <initializer_list>

#include "virtual_gpu/clock.h"
#include "virtual_gpu/sample_source.h"
#include "virtual_gpu/scene.h"

namespace {

using qel::vexa::virtual_gpu::nanoseconds_per_second;
using qel::vexa::virtual_gpu::raw_clock;
using qel::vexa::virtual_gpu::scatter;
using qel::vexa::virtual_gpu::scene_frame;
using qel::vexa::virtual_gpu::time_span;

class frame_timeline : public perfetto::DataSource<frame_timeline> {};

constexpr const char* data_source_name = "android.surfaceflinger.frametimeline";
constexpr const char* layer_name = "Virtual scene#0";

// The fields of the tracing protocol's TracePacket and FrameTimelineEvent. Not every release of the SDK has
// the message's writer.
constexpr std::uint32_t frame_timeline_event = 76;
enum event_field : std::uint32_t {
    expected_display = 1,
    actual_display = 2,
    expected_surface = 3,
    actual_surface = 4,
    frame_end = 5
};
enum present_type : std::uint32_t { on_time = 1, late = 2 };
enum jank_type : std::uint32_t {
    none = 1,
    compositor_deadline_missed = 16,
    application_deadline_missed = 64
};
constexpr std::uint32_t valid_prediction = 1;

// Where in a frame's period the compositor wakes up: the application's frame is to be ready then.
constexpr std::uint64_t deadline = 11'500'000;

std::uint64_t monotonic_clock() {
    timespec time{};
    ::clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<std::uint64_t>(time.tv_sec) * nanoseconds_per_second +
           static_cast<std::uint64_t>(time.tv_nsec);
}

// Compositors tell times on CLOCK_MONOTONIC.
struct packet_clock {
    std::uint64_t ahead = monotonic_clock() - raw_clock();

    template <typename Write>
    void write(frame_timeline::TraceContext& trace, std::uint64_t raw_time, event_field field,
               Write write_fields) const {
        auto packet = trace.NewTracePacket();
        packet->set_timestamp(raw_time + ahead);
        packet->set_timestamp_clock_id(perfetto::protos::pbzero::BUILTIN_CLOCK_MONOTONIC);
        write_fields(*packet->BeginNestedMessage<protozero::Message>(frame_timeline_event)
                          ->BeginNestedMessage<protozero::Message>(field));
    }
};

// What was expected of a frame, and what came of it.
void write_pair(frame_timeline::TraceContext& trace, const packet_clock& clock, std::uint64_t token,
                bool is_display, const time_span& expected, const time_span& actual, jank_type jank) {
    const bool is_on_time = actual.end <= expected.end;
    // No two frames that are under way have the same.
    std::uint64_t cookie = token * 4 + (is_display ? 2 : 0);
    for (const bool is_actual : {false, true}) {
        ++cookie;
        const time_span& times = is_actual ? actual : expected;
        const event_field field = is_display ? (is_actual ? actual_display : expected_display)
                                             : (is_actual ? actual_surface : expected_surface);
        clock.write(trace, times.begin, field, [&](protozero::Message& begin) {
            begin.AppendVarInt(1, cookie);
            begin.AppendVarInt(2, token);
            std::uint32_t next = 3;
            if (!is_display) {
                begin.AppendVarInt(next++, token);  // the display's frame that shows it
            }
            begin.AppendVarInt(next++, static_cast<std::uint32_t>(::getpid()));
            if (!is_display) {
                begin.AppendString(next++, layer_name);
            }
            if (is_actual) {
                begin.AppendVarInt(next++, jank == none ? on_time : late);
                begin.AppendVarInt(next++, is_on_time ? 1U : 0U);
                begin.AppendVarInt(next++, 0U);  // the GPU composes nothing
                begin.AppendVarInt(next++, jank);
                begin.AppendVarInt(next++, valid_prediction);
            }
        });
        clock.write(trace, times.end, frame_end,
                    [&](protozero::Message& end) { end.AppendVarInt(1, cookie); });
    }
}

void write_frame(frame_timeline::TraceContext& trace, const scene_frame& frame) {
    const packet_clock clock;
    const time_span expected{.begin = frame.begin, .end = frame.begin + deadline};
    const time_span drawn{.begin = frame.begin, .end = frame.fragment.end};
    const std::uint64_t next = frame.begin + scene_frame::period;
    // About once in a second the compositor itself is late.
    const jank_type jank = drawn.end > expected.end              ? application_deadline_missed
                           : scatter(frame.number ^ 1) % 64 == 0 ? compositor_deadline_missed
                                                                 : none;
    const std::uint64_t seen = jank == none ? next : next + scene_frame::period;
    write_pair(trace, clock, frame.number, false, expected, drawn, jank);
    write_pair(trace, clock, frame.number, true, {.begin = expected.end, .end = next},
               {.begin = expected.end, .end = seen}, jank);
    trace.Flush();
}

void sleep_until(std::uint64_t raw_time) {
    for (std::uint64_t now = raw_clock(); now < raw_time; now = raw_clock()) {
        const std::uint64_t left = raw_time - now;
        const timespec rest{.tv_sec = static_cast<time_t>(left / nanoseconds_per_second),
                            .tv_nsec = static_cast<long>(left % nanoseconds_per_second)};
        ::nanosleep(&rest, nullptr);
    }
}

}  // namespace

PERFETTO_DECLARE_DATA_SOURCE_STATIC_MEMBERS(frame_timeline);
PERFETTO_DEFINE_DATA_SOURCE_STATIC_MEMBERS(frame_timeline);

int main() {
    perfetto::TracingInitArgs arguments;
    arguments.backends = perfetto::kSystemBackend;
    perfetto::Tracing::Initialize(arguments);
    perfetto::DataSourceDescriptor descriptor;
    descriptor.set_name(data_source_name);
    frame_timeline::Register(descriptor);
    // A frame is told when it was seen at the latest.
    constexpr unsigned periods_until_seen = 2;
    for (std::uint64_t number = raw_clock() / scene_frame::period;; ++number) {
        const scene_frame frame(number);
        sleep_until(frame.begin + periods_until_seen * scene_frame::period);
        frame_timeline::Trace([&frame](frame_timeline::TraceContext trace) { write_frame(trace, frame); });
    }
}
