// Which of the nine counter tables hold a row.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace qel::vexa::hwc {

inline constexpr unsigned table_count = 9;

// How many threads make up a warp, by table number less one.
inline constexpr std::array<std::uint8_t, table_count> warp_sizes{4, 4, 8, 4, 4, 8, 16, 16, 16};

// A set of table numbers from 1 to 9.
class table_set {
public:
    constexpr table_set() = default;

    constexpr bool contains(unsigned table) const { return ((bits_ >> table) & 1U) != 0; }
    constexpr bool overlaps(table_set other) const { return (bits_ & other.bits_) != 0; }
    constexpr bool empty() const { return bits_ == 0; }
    constexpr table_set operator|(table_set other) const {
        other.bits_ = static_cast<std::uint16_t>(bits_ | other.bits_);
        return other;
    }
    constexpr void add(unsigned table) { bits_ = static_cast<std::uint16_t>(bits_ | (1U << table)); }

private:
    std::uint16_t bits_ = 0;
};

// Reads a list of table numbers and ranges, such as "1-3, 6". A mistake in the list does not compile.
constexpr table_set tables(std::string_view list) {
    table_set result;
    unsigned first = 0;
    unsigned number = 0;
    for (std::size_t i = 0; i <= list.size(); ++i) {
        const char c = i < list.size() ? list[i] : ',';
        if (c >= '1' && c <= '9' && number == 0) {
            number = static_cast<unsigned>(c - '0');
        } else if (c == '-' && number != 0 && first == 0) {
            first = number;
            number = 0;
        } else if (c == ',' && number != 0 && first < number) {
            for (unsigned table = first == 0 ? number : first; table <= number; ++table) {
                result.add(table);
            }
            first = number = 0;
        } else if (c != ' ') {
            throw "a list of tables is made of the numbers 1 to 9, commas and rising ranges";
        }
    }
    return result;
}

inline constexpr table_set all_tables = tables("1-9");

}  // namespace qel::vexa::hwc
