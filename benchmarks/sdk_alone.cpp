// A library with the tracing SDK and nothing else, which takes the same parts of the SDK along as the real
// one. Its data source "values_in_hand" writes packets like the real one's, with numbers that it has in hand,
// by a timer: what the SDK alone costs in a session.
#include <perfetto.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

namespace {

namespace pbzero = perfetto::protos::pbzero;

constexpr std::int64_t nanoseconds_per_second = 1'000'000'000;

class values_in_hand : public perfetto::DataSource<values_in_hand> {
public:
    void OnSetup(const SetupArgs& arguments) override {
        const std::string& config = arguments.config->gpu_counter_config_raw();
        const pbzero::GpuCounterConfig::Decoder decoder(config);
        period_ = static_cast<std::int64_t>(decoder.counter_period_ns());
        for (auto id = decoder.counter_ids(); id; ++id) {
            ids_.push_back(*id);
        }
    }
    void OnStart(const StartArgs& /*arguments*/) override {
        writer_ = std::thread([this] { write_until_stopped(); });
    }
    void OnStop(const StopArgs& /*arguments*/) override {
        stopped_ = true;
        writer_.join();
    }

private:
    void write_until_stopped() const {
        timespec next;
        clock_gettime(CLOCK_MONOTONIC, &next);
        while (!stopped_) {
            const std::int64_t due = next.tv_sec * nanoseconds_per_second + next.tv_nsec + period_;
            next.tv_sec = static_cast<time_t>(due / nanoseconds_per_second);
            next.tv_nsec = static_cast<long>(due % nanoseconds_per_second);
            clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, nullptr);
            Trace([&](TraceContext context) {
                const auto packet = context.NewTracePacket();
                packet->set_timestamp_clock_id(pbzero::BUILTIN_CLOCK_MONOTONIC_RAW);
                packet->set_timestamp(static_cast<std::uint64_t>(due));
                auto* event = packet->set_gpu_counter_event();
                for (const std::uint32_t id : ids_) {
                    auto* counter = event->add_counters();
                    counter->set_counter_id(id);
                    counter->set_double_value(id * 0.5);
                }
            });
        }
    }

    std::int64_t period_ = 0;
    std::vector<std::uint32_t> ids_;
    std::atomic<bool> stopped_ = false;
    std::thread writer_;
};

}  // namespace

PERFETTO_DECLARE_DATA_SOURCE_STATIC_MEMBERS(values_in_hand);
PERFETTO_DEFINE_DATA_SOURCE_STATIC_MEMBERS(values_in_hand);

// As the real library's: the launcher can be given either.
extern "C" __attribute__((visibility("default"))) void start() {
    perfetto::TracingInitArgs arguments;
    arguments.backends = perfetto::kSystemBackend;
    perfetto::Tracing::Initialize(arguments);
    perfetto::DataSourceDescriptor descriptor;
    descriptor.set_name("values_in_hand");
    values_in_hand::Register(descriptor);
    for (;;) {
        ::pause();
    }
}
