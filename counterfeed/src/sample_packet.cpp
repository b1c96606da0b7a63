#include "counterfeed/src/sample_packet.h"

#include <perfetto.h>

#include <algorithm>
#include <bit>
#include <iterator>

namespace qel::vexa::counterfeed {

namespace {

namespace pbzero = perfetto::protos::pbzero;
namespace wire = protozero::proto_utils;

static_assert(std::endian::native == std::endian::little, "values are stored as the protocol has them");

constexpr std::size_t longest_varint = 10;
constexpr std::size_t longest_tag = 5;
// The clock's tag and number, the timestamp's tag and number.
constexpr std::size_t longest_head = longest_tag + 1 + longest_tag + longest_varint;

using bytes = std::vector<std::uint8_t>;

void append_varint(bytes& out, std::uint64_t value) {
    std::uint8_t buffer[longest_varint];
    out.insert(out.end(), buffer, wire::WriteVarInt(value, buffer));
}

void append_message(bytes& out, std::uint32_t field, const bytes& message) {
    append_varint(out, wire::MakeTagLengthDelimited(field));
    append_varint(out, message.size());
    out.insert(out.end(), message.begin(), message.end());
}

}  // namespace

sample_packet::sample_packet(std::span<const std::uint32_t> counter_ids) {
    bytes event;
    value_offsets_.reserve(counter_ids.size());
    for (const std::uint32_t id : counter_ids) {
        bytes counter;
        append_varint(counter,
                      wire::MakeTagVarInt(pbzero::GpuCounterEvent_GpuCounter::kCounterIdFieldNumber));
        append_varint(counter, id);
        append_varint(
            counter, wire::MakeTagFixed<double>(pbzero::GpuCounterEvent_GpuCounter::kDoubleValueFieldNumber));
        counter.resize(counter.size() + sizeof(double));
        append_message(event, pbzero::GpuCounterEvent::kCountersFieldNumber, counter);
        value_offsets_.push_back(event.size() - sizeof(double));
    }
    bytes_.resize(longest_head);
    append_message(bytes_, pbzero::TracePacket::kGpuCounterEventFieldNumber, event);
    const std::size_t begin_of_event = bytes_.size() - event.size();
    for (std::size_t& offset : value_offsets_) {
        offset += begin_of_event;
    }
}

std::span<const std::uint8_t> sample_packet::at(std::uint64_t timestamp) {
    std::uint8_t head[longest_head];
    std::uint8_t* end =
        wire::WriteVarInt(wire::MakeTagVarInt(pbzero::TracePacket::kTimestampClockIdFieldNumber), head);
    end = wire::WriteVarInt(std::uint32_t{pbzero::BUILTIN_CLOCK_MONOTONIC_RAW}, end);
    end = wire::WriteVarInt(wire::MakeTagVarInt(pbzero::TracePacket::kTimestampFieldNumber), end);
    end = wire::WriteVarInt(timestamp, end);
    const auto begin = longest_head - static_cast<std::size_t>(end - head);
    std::copy(head, end, bytes_.begin() + static_cast<std::ptrdiff_t>(begin));
    return std::span(bytes_).subspan(begin);
}

}  // namespace qel::vexa::counterfeed
