// The driver's property bytes, written out by hand.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace test_support {

using bytes = std::vector<std::byte>;

// One record, its value in 1 << size_code bytes. The last of them may be cut off.
inline bytes property(std::uint32_t key, unsigned size_code, std::uint64_t value, std::size_t cut = 0) {
    bytes result;
    for (unsigned i = 0; i < 4; ++i) {
        result.push_back(static_cast<std::byte>((key << 2 | size_code) >> 8 * i));
    }
    for (unsigned i = 0; i < 1U << size_code; ++i) {
        result.push_back(static_cast<std::byte>(value >> 8 * i));
    }
    result.resize(result.size() - cut);
    return result;
}

inline bytes operator+(bytes left, const bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

}  // namespace test_support
