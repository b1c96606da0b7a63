#include "counterfeed/src/vexa_gpu_data_source.h"

#include <sys/prctl.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <exception>
#include <functional>
#include <limits>
#include <span>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "counterfeed/src/periodic_hwc_reader.h"
#include "counterfeed/src/sample_packet.h"
#include "hwc/measure_unit.h"
#include "hwc/product.h"
#include "hwc/profiler.h"
#include "hwc/reported_rows.h"
#include "hwc/reported_value.h"

PERFETTO_DEFINE_DATA_SOURCE_STATIC_MEMBERS(qel::vexa::counterfeed::vexa_gpu_data_source);

namespace qel::vexa::counterfeed {

namespace {

namespace pbzero = perfetto::protos::pbzero;

constexpr const char* data_source_name = "gpu.counters";
constexpr const char* device_path = "/dev/vexa0";  // always the first instance
// Nanoseconds, as the service is told and as a session's period is limited.
constexpr std::int64_t min_sampling_period = 1'000'000;
constexpr std::int64_t max_sampling_period = 1'000'000'000;

// A row as the tracing protocol describes it. The order of the fields is part of the format.
void populate_counter_spec(pbzero::GpuCounterDescriptor_GpuCounterSpec& spec,
                           const hwc::vexa_counter_descriptor& row) {
    using measure_unit = pbzero::GpuCounterDescriptor_MeasureUnit;
    spec.set_counter_id(row.id);
    spec.set_name(row.name);
    spec.set_description(row.description);
    spec.set_select_by_default(row.select_by_default);
    spec.add_numerator_units(static_cast<measure_unit>(row.numerator_units));
    spec.add_denominator_units(static_cast<measure_unit>(row.denominator_units));
    if (row.numerator_units == hwc::unit_percent) {
        spec.set_double_peak_value(hwc::full_percent);
    }
}

std::string describe_all_counters(const hwc::counter_table& counters) {
    constexpr std::size_t slice_size = 4096;
    protozero::HeapBuffered<pbzero::GpuCounterDescriptor> descriptor(slice_size, slice_size);
    descriptor->set_min_sampling_period_ns(min_sampling_period);
    descriptor->set_max_sampling_period_ns(max_sampling_period);
    descriptor->set_supports_instrumented_sampling(false);
    for (const hwc::vexa_counter_descriptor& row : counters) {
        populate_counter_spec(*descriptor->add_specs(), row);
    }
    return descriptor.SerializeAsString();
}

// The period in force: the default when the config has none. A present period is read as a signed number,
// deliberately, so that a value of 2 to the power 63 or more is short and not long.
std::int64_t limit_period(std::uint64_t period) {
    return std::max(std::min(static_cast<std::int64_t>(period), max_sampling_period), min_sampling_period);
}

// The substitute reader of a config that carries the address of a factory, otherwise none.
std::unique_ptr<hwc_reader> ask_reader_factory(const perfetto::DataSourceConfig& config) {
    const auto address = static_cast<std::uintptr_t>(config.for_testing().dummy_fields().field_uint64());
    if (address == 0) {
        return nullptr;
    }
    // NOLINTNEXTLINE(performance-no-int-to-ptr): a config can only carry a number
    const auto& factory = *reinterpret_cast<const reader_factory*>(address);
    if (!factory) {
        std::abort();
    }
    return factory();
}

[[noreturn]] void thread_failed(const std::error_code& reason) {
    throw std::system_error(reason, "thread constructor failed");
}

// Ends the process when no thread can be had: the function lets no exception out, so nothing catches that
// error on its way and its words are the process's last.
template <typename Body>
std::thread start_thread(Body body) noexcept {
    try {
        return std::thread(body);
    } catch (const std::system_error& error) {
        thread_failed(error.code());
    }
}

}  // namespace

void connect_to_tracing_service() {
    perfetto::TracingInitArgs arguments;
    arguments.backends = perfetto::kSystemBackend;
    perfetto::Tracing::Initialize(arguments);
}

bool register_vexa_gpu_data_source() {
    std::error_code ec;
    const hwc::product product(device_path, ec);
    if (ec) {
        return false;
    }
    perfetto::DataSourceDescriptor descriptor;
    descriptor.set_name(data_source_name);
    descriptor.set_gpu_counter_descriptor_raw(describe_all_counters(*product.counters));
    vexa_gpu_data_source::Register(descriptor);
    return true;
}

void vexa_gpu_data_source::OnSetup(const SetupArgs& arguments) {
    const perfetto::DataSourceConfig& config = *arguments.config;

    counter_ids.clear();
    sampling_period = default_sampling_period;
    // Fields that are not of the expected wire type are somebody else's idea of this message, and are passed
    // over.
    const std::string& counter_config = config.gpu_counter_config_raw();
    protozero::ProtoDecoder decoder(counter_config.data(), counter_config.size());
    for (protozero::Field field = decoder.ReadField(); field.valid(); field = decoder.ReadField()) {
        if (field.type() != protozero::proto_utils::ProtoWireType::kVarInt) {
            continue;
        }
        if (field.id() == pbzero::GpuCounterConfig::kCounterPeriodNsFieldNumber) {
            sampling_period = limit_period(field.as_uint64());
        } else if (field.id() == pbzero::GpuCounterConfig::kCounterIdsFieldNumber) {
            counter_ids.insert(field.as_uint32());
        }
    }

    std::error_code ec;
    std::unique_ptr<hwc_reader> new_reader = ask_reader_factory(config);
    std::uint64_t new_words_per_sample = std::numeric_limits<std::uint64_t>::max();
    if (!new_reader) {
        auto kernel_reader =
            std::make_unique<periodic_hwc_reader>(std::chrono::nanoseconds(sampling_period), ec);
        new_words_per_sample = kernel_reader->words_per_sample();
        new_reader = std::move(kernel_reader);
    }
    if (!ec && new_reader->is_initialized()) {
        reader = std::move(new_reader);
        words_per_sample = new_words_per_sample;
        return;
    }
    logger.e("Failed to initialize HWC reader\n");
}

void vexa_gpu_data_source::OnStart(const StartArgs& /*arguments*/) {
    if (!reader) {
        logger.e("Couldn't start because OnSetup failed");
        return;
    }
    if (poll_thread.joinable()) {
        std::terminate();  // the running thread uses the reader, which must not go away under it
    }
    if (!reader->begin_sampling_periodic()) {
        reader.reset();
        logger.e("Couldn't start because periodic sampling setup failed");
        return;
    }
    poll_thread = start_thread([this] { threadfn_periodic_counter_poll_loop(); });
}

void vexa_gpu_data_source::OnStop(const StopArgs& /*arguments*/) {
    if (!poll_thread.joinable()) {
        return;
    }
    reader->interrupt();
    poll_thread.join();
    reader.reset();
}

void vexa_gpu_data_source::threadfn_periodic_counter_poll_loop() const {
    ::prctl(PR_SET_NAME, "gpu-hwc-periodic", 0, 0, 0);  // the kernel keeps fifteen characters

    std::error_code ec;
    const hwc::product product(device_path, ec);
    if (ec) {
        return;
    }
    hwc::profiler profiler(product, reader->get_hwver());
    std::vector<std::reference_wrapper<const hwc::vexa_counter_descriptor>> selected_counters;
    selected_counters.reserve(counter_ids.size());
    for (const std::uint32_t id : counter_ids) {
        if (const hwc::vexa_counter_descriptor* row = product.counters->find(id)) {
            selected_counters.emplace_back(*row);
        } else {
            logger.w("Unexpected counter id %u specified, ignoring\n", id);
        }
    }

    // Both kinds of packet go to every active session, deliberately: a session also receives those of its
    // neighbours, on sequences of their own.
    Trace([&selected_counters](TraceContext context) {
        const auto packet = context.NewTracePacket();
        packet->set_timestamp(0);
        auto* descriptor = packet->set_gpu_counter_event()->set_counter_descriptor();
        for (const hwc::vexa_counter_descriptor& row : selected_counters) {
            populate_counter_spec(*descriptor->add_specs(), row);
        }
    });
    // What the driver tells detection of slices and cores, and what it tells the reader of a sample's size,
    // are answers of their own. Where the rows would read behind a sample, the session gets no samples, like
    // one whose reader has failed.
    if (words_per_sample < profiler.words_read()) {
        return;
    }
    std::vector<std::uint32_t> selected_ids;
    selected_ids.reserve(selected_counters.size());
    for (const hwc::vexa_counter_descriptor& row : selected_counters) {
        selected_ids.push_back(row.id);
    }
    const hwc::reported_rows rows(profiler, selected_counters);
    sample_packet packet(selected_ids);
    reader->process_buffers_until_interrupted([&profiler, &rows, &packet](
                                                  std::uint64_t timestamp, std::uint64_t /*delta*/,
                                                  std::uint64_t cycles, const std::uint32_t* sample) {
        profiler.gpu_cycles = cycles;
        rows.evaluate(sample, [&packet](std::size_t index, double value) { packet.set_value(index, value); });
        const std::span<const std::uint8_t> bytes = packet.at(timestamp);
        Trace([bytes](TraceContext context) {
            context.NewTracePacket()->AppendRawProtoBytes(bytes.data(), bytes.size());
        });
    });
}

}  // namespace qel::vexa::counterfeed
