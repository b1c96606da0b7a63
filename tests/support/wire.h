// The protocol's bytes, written out by hand. Independent of the SDK on purpose.
#pragma once

#include <bit>
#include <cstdint>
#include <string>

namespace test_support::wire {

inline std::string varint(std::uint64_t value) {
    std::string result;
    for (; value > 0x7f; value >>= 7) {
        result += static_cast<char>(value | 0x80);
    }
    return result += static_cast<char>(value);
}

inline std::string number(unsigned field, std::uint64_t value) {
    return varint(field << 3) + varint(value);
}

inline std::string text(unsigned field, const std::string& value) {
    return varint(field << 3 | 2) + varint(value.size()) + value;
}

// A message in a message. The SDK writes it before it knows its length, and leaves four bytes for that.
inline std::string nested(unsigned field, const std::string& value) {
    std::string result = varint(field << 3 | 2);
    for (unsigned i = 0; i < 4; ++i) {
        result += static_cast<char>((value.size() >> 7 * i & 0x7f) | (i < 3 ? 0x80 : 0));
    }
    return result + value;
}

inline std::string real(unsigned field, double value) {
    std::string result = varint(field << 3 | 1);
    for (unsigned i = 0; i < 8; ++i) {
        result += static_cast<char>(std::bit_cast<std::uint64_t>(value) >> 8 * i);
    }
    return result;
}

}  // namespace test_support::wire
