// A library with the tracing SDK and nothing else: a data source that does nothing, which takes the same
// parts of the SDK along as the real one.
#include <perfetto.h>
#include <unistd.h>

namespace {

class idle_source : public perfetto::DataSource<idle_source> {};

}  // namespace

PERFETTO_DECLARE_DATA_SOURCE_STATIC_MEMBERS(idle_source);
PERFETTO_DEFINE_DATA_SOURCE_STATIC_MEMBERS(idle_source);

// As the real library's: the launcher can be given either.
extern "C" __attribute__((visibility("default"))) void start() {
    perfetto::TracingInitArgs arguments;
    arguments.backends = perfetto::kSystemBackend;
    perfetto::Tracing::Initialize(arguments);
    perfetto::DataSourceDescriptor descriptor;
    descriptor.set_name("idle");
    idle_source::Register(descriptor);
    idle_source::Trace([](idle_source::TraceContext context) {
        context.NewTracePacket()->set_gpu_counter_event()->add_counters()->set_double_value(1.0);
    });
    for (;;) {
        ::pause();
    }
}
