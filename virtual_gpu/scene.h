// The frames of the scene that the workload draws.
#pragma once

#include <cstdint>

namespace qel::vexa::virtual_gpu {

struct time_span {
    std::uint64_t begin;
    std::uint64_t end;
};

// Times are nanoseconds on the samples' clock, on which frame 0 begins at 0: whoever draws or watches the
// scene is in step with all others.
struct scene_frame {
    static constexpr std::uint64_t period = 16'666'667;

    explicit scene_frame(std::uint64_t its_number);

    std::uint64_t number;
    std::uint64_t begin;
    std::uint64_t load;  // how heavy it is, in per mille
    // When the GPU works on it.
    time_span geometry;
    time_span fragment;
};

}  // namespace qel::vexa::virtual_gpu
