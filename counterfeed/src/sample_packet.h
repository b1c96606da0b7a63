// The trace packet of a sample, as bytes.
//
// From sample to sample only the timestamp and the values change. Ids, tags and lengths are laid out once for
// a session, so that a sample takes a store for each of its values and one append to the trace.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

namespace qel::vexa::counterfeed {

// Belongs to one sampling thread.
class sample_packet {
public:
    // The counters' ids, in the order in which the packet has them. All values are 0.
    explicit sample_packet(std::span<const std::uint32_t> counter_ids);

    // The value of the counter with this index among the ids.
    void set_value(std::size_t index, double value) {
        std::memcpy(bytes_.data() + value_offsets_[index], &value, sizeof value);
    }

    // The fields of a TracePacket with this timestamp, in nanoseconds of CLOCK_MONOTONIC_RAW, and the values
    // that were set. Valid until the next call and as long as the object.
    std::span<const std::uint8_t> at(std::uint64_t timestamp);

private:
    std::vector<std::uint8_t> bytes_;  // the event, behind room for the longest timestamp
    std::vector<std::size_t> value_offsets_;
};

}  // namespace qel::vexa::counterfeed
