// The GPUs whose counters are known: which product an id stands for, and which layout of counters it has.
#pragma once

#include <array>
#include <cstdint>

namespace qel::vexa::virtual_gpu {

struct known_gpu {
    std::uint32_t masked_id;
    unsigned product;
    unsigned counter_table;  // 1 to 9
};

inline constexpr std::array<known_gpu, 15> known_gpus{{
    {0x6000, 5, 4},
    {0x6001, 6, 5},
    {0x7000, 1, 2},
    {0x7001, 7, 6},
    {0x7002, 2, 3},
    {0x7003, 0, 1},
    {0x9000, 8, 7},
    {0x9001, 3, 7},
    {0x9002, 9, 8},
    {0x9003, 3, 7},
    {0x9004, 4, 8},
    {0xa002, 13, 9},
    {0xa003, 11, 9},
    {0xa004, 10, 9},
    {0xa007, 12, 9},
}};

// The entry of a product id word, or null.
constexpr const known_gpu* find_known_gpu(std::uint32_t product_id) {
    for (const known_gpu& gpu : known_gpus) {
        if (gpu.masked_id == (product_id & 0xf00f)) {
            return &gpu;
        }
    }
    return nullptr;
}

}  // namespace qel::vexa::virtual_gpu
