#include "virtual_gpu/scene.h"

#include <algorithm>

#include "virtual_gpu/sample_source.h"

namespace qel::vexa::virtual_gpu {

namespace {

// The scene swings over ten seconds, and every frame has its own moods.
std::uint64_t load_of(std::uint64_t frame) {
    constexpr std::uint64_t swing = 300;
    const std::uint64_t position = frame % (2 * swing);
    return 500 + std::min(position, 2 * swing - position) + scatter(frame) % 200;
}

}  // namespace

scene_frame::scene_frame(std::uint64_t its_number)
    : number(its_number), begin(number * period), load(load_of(number)) {
    const std::uint64_t start = begin + 500'000;
    geometry = {.begin = start, .end = start + load * 3'200};
    fragment = {.begin = start + load * 2'400, .end = start + load * 12'400};
}

}  // namespace qel::vexa::virtual_gpu
