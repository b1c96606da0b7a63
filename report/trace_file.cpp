#include "report/trace_file.h"

#include <perfetto.h>

#include <fstream>
#include <iterator>
#include <sstream>

namespace qel::vexa::report {

namespace {

namespace pbzero = perfetto::protos::pbzero;

std::string unit_words(const std::vector<std::uint32_t>& units) {
    static const std::map<std::uint32_t, const char*> words{{7, "byte"},      {26, "pixel"},
                                                            {37, "percent"},  {38, "primitive"},
                                                            {39, "fragment"}, {40, "instruction"}};
    std::string result;
    for (const std::uint32_t unit : units) {
        if (unit == 0) {
            continue;
        }
        const auto word = words.find(unit);
        result += (result.empty() ? "" : " ") +
                  (word != words.end() ? std::string(word->second) : "unit " + std::to_string(unit));
    }
    return result;
}

std::vector<counter_description> read_descriptor(protozero::ConstBytes bytes) {
    std::vector<counter_description> result;
    const pbzero::GpuCounterDescriptor::Decoder descriptor(bytes);
    for (auto spec = descriptor.specs(); spec; ++spec) {
        const pbzero::GpuCounterDescriptor_GpuCounterSpec::Decoder fields(*spec);
        counter_description counter;
        counter.id = fields.counter_id();
        counter.name = fields.name().ToStdString();
        counter.description = fields.description().ToStdString();
        counter.select_by_default = fields.select_by_default();
        for (auto unit = fields.numerator_units(); unit; ++unit) {
            counter.numerator_units.push_back(static_cast<std::uint32_t>(*unit));
        }
        for (auto unit = fields.denominator_units(); unit; ++unit) {
            counter.denominator_units.push_back(static_cast<std::uint32_t>(*unit));
        }
        result.push_back(std::move(counter));
    }
    return result;
}

void read_event(const pbzero::TracePacket::Decoder& packet, counter_sequence& sequence) {
    const pbzero::GpuCounterEvent::Decoder event(packet.gpu_counter_event());
    if (event.has_counter_descriptor()) {
        sequence.counters = read_descriptor(event.counter_descriptor());
        return;
    }
    counter_sample sample{.timestamp = packet.timestamp(), .values = {}};
    for (auto counter = event.counters(); counter; ++counter) {
        const pbzero::GpuCounterEvent_GpuCounter::Decoder fields(*counter);
        sample.values.push_back({fields.counter_id(), fields.double_value()});
    }
    sequence.samples.push_back(std::move(sample));
}

}  // namespace

std::string counter_description::unit() const {
    const std::string below = unit_words(denominator_units);
    const std::string above = unit_words(numerator_units);
    return below.empty() ? above : above.empty() ? "per " + below : above + "/" + below;
}

std::optional<std::map<std::uint32_t, counter_sequence>> read_counters(const std::string& trace) {
    std::map<std::uint32_t, counter_sequence> result;
    bool any_packet = false;
    protozero::ProtoDecoder file(trace.data(), trace.size());
    for (protozero::Field field = file.ReadField(); field.valid(); field = file.ReadField()) {
        if (field.id() != pbzero::Trace::kPacketFieldNumber ||
            field.type() != protozero::proto_utils::ProtoWireType::kLengthDelimited) {
            continue;
        }
        any_packet = true;
        const pbzero::TracePacket::Decoder packet(field.as_bytes());
        if (packet.has_gpu_counter_event()) {
            read_event(packet, result[packet.trusted_packet_sequence_id()]);
        }
    }
    return any_packet ? std::optional(std::move(result)) : std::nullopt;
}

std::vector<counter_description> read_offered_counters(const std::string& service_state) {
    perfetto::protos::gen::TracingServiceState state;
    if (!state.ParseFromString(service_state)) {
        return {};
    }
    for (const auto& source : state.data_sources()) {
        if (source.ds_descriptor().name() == "gpu.counters") {
            const std::string& bytes = source.ds_descriptor().gpu_counter_descriptor_raw();
            return read_descriptor({reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()});
        }
    }
    return {};
}

std::optional<std::string> read_file(const char* path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << file.rdbuf();
    return file.good() || (file.eof() && !file.bad()) ? std::optional(bytes.str()) : std::nullopt;
}

}  // namespace qel::vexa::report
