// Sample words of a GPU at work: an endless scene at 60 frames per second, for demonstrations.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "virtual_gpu/sample_source.h"

namespace qel::vexa::virtual_gpu {

// Every frame is drawn in a geometry phase and, partly at the same time, a fragment phase; then the GPU is
// idle. How long they last and how much work they hold differs from frame to frame. The words depend on the
// GPU, the times of the sample and nothing else, and agree with each other: no cache has more hits than
// lookups, no unit is busy for more cycles than there were. A GPU whose counters are not known counts
// nothing.
class workload_source final : public sample_source {
public:
    explicit workload_source(const gpu_description& gpu);

    // A counter of this GPU: where it stands in its block, and its value as a share of a quantity.
    struct counter {
        std::size_t offset;
        std::size_t quantity;
        std::uint32_t per_mille;
    };

private:
    std::uint64_t count(const sample_interval& interval, std::span<std::uint32_t> words) override;

    const sample_layout layout_;
    const std::uint64_t clock_hz_;
    const std::uint64_t beats_per_read_;
    std::uint64_t quads_per_warp_ = 1;
    std::array<std::vector<counter>, 4>
        counters_;  // by class of block: job manager, tiler, L2 slice, shader core
};

}  // namespace qel::vexa::virtual_gpu
