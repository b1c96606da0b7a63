// The form of the raw counters' lists, one list for each hardware block.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "hwc/counter_descriptor.h"
#include "hwc/measure_unit.h"
#include "hwc/table_set.h"

namespace qel::vexa::hwc {

// In the order in which the blocks' ids follow each other.
enum class block : std::uint32_t { job_manager = 0, tiler = 1, memory_system = 2, shader_core = 3 };

enum class selection : bool { off = false, by_default = true };

// Where a counter stands: the same counter can have one id in some tables and another in the rest.
struct placement {
    std::uint16_t id = 0;
    table_set tables;
};

struct raw_row {
    std::array<placement, 2> at;
    const char* name;
    std::string_view hardware_name;
    // What is counted, in which unit of time or event, and what a high or low value suggests. The sentences
    // that close a description follow from the block and the hardware name: describe() adds them.
    std::string_view body;
    measure_unit unit = unit_none;
    selection selected = selection::off;
    std::string_view note = {};  // a further sentence, for rows that differ between tables in just that

    constexpr table_set tables() const { return at[0].tables | at[1].tables; }
    // The row's id in a table, or nothing when the table does not hold it.
    constexpr std::optional<std::uint32_t> id_in(unsigned table) const {
        for (const placement& place : at) {
            if (place.tables.contains(table)) {
                return place.id;
            }
        }
        return std::nullopt;
    }
};

constexpr std::string_view closing_sentence(block b) {
    switch (b) {
        case block::memory_system:
            return " The value reported is the summed value across all L2 cache slices. The number of L2 "
                   "cache slices "
                   "is reported by the \"L2 cache slice count\" counter.";
        case block::shader_core:
            return " The value reported is the average value across all shader cores. The number of shader "
                   "cores is "
                   "reported by the \"Shader core count\" counter.";
        case block::job_manager:
        case block::tiler:
            break;
    }
    return {};
}

// A note that the number of threads in a warp completes, in the place of the mark.
inline constexpr char warp_size_mark = '#';
inline constexpr std::string_view warp_size_note =
    "Note that the warp size varies between Vexa devices, this GPU has a warp size of # threads.";

// Calls take(piece) for each piece of a row's description in a table, in order.
constexpr void for_each_piece(const raw_row& row, block b, unsigned table, auto take) {
    take(row.body);
    if (!row.note.empty()) {
        take(std::string_view(" "));
        const std::size_t mark = row.note.find(warp_size_mark);
        take(row.note.substr(0, mark));
        if (mark != std::string_view::npos) {
            const unsigned size = warp_sizes[table - 1];
            const char digits[] = {static_cast<char>('0' + size / 10), static_cast<char>('0' + size % 10)};
            take(std::string_view(digits, 2).substr(size < 10 ? 1 : 0));
            take(row.note.substr(mark + 1));
        }
    }
    take(std::string_view(" Hardware name: "));
    take(row.hardware_name);
    take(std::string_view("."));
    take(closing_sentence(b));
}

// The first table in which the row's description is the same as in this one.
constexpr unsigned first_table_like(const raw_row& row, unsigned table) {
    const bool tells_warp_size = row.note.find(warp_size_mark) != std::string_view::npos;
    const auto* const same_size = std::find(warp_sizes.begin(), warp_sizes.end(), warp_sizes[table - 1]);
    return tells_warp_size ? static_cast<unsigned>(same_size - warp_sizes.begin()) + 1 : 1;
}

template <const auto& rows, block b>
consteval std::size_t description_size() {
    std::size_t size = 0;
    for (const raw_row& row : rows) {
        for (unsigned table = 1; table <= table_count; ++table) {
            if (first_table_like(row, table) == table) {
                for_each_piece(row, b, table, [&size](std::string_view piece) { size += piece.size(); });
                ++size;  // the terminator
            }
        }
    }
    return size;
}

// The full descriptions of a list's rows: one constant text, and where each row's part of it begins.
template <std::size_t row_count, std::size_t text_size>
struct description_texts {
    static_assert(text_size <= UINT16_MAX);
    std::array<std::array<std::uint16_t, table_count>, row_count> begins{};
    std::array<char, text_size> text{};

    constexpr const char* of(std::size_t row, unsigned table) const {
        return text.data() + begins[row][table - 1];
    }
};

template <const auto& rows, block b>
consteval auto describe() {
    description_texts<rows.size(), description_size<rows, b>()> result;
    std::size_t end = 0;
    for (std::size_t i = 0; i < rows.size(); ++i) {
        for (unsigned table = 1; table <= table_count; ++table) {
            const unsigned first = first_table_like(rows[i], table);
            if (first != table) {
                result.begins[i][table - 1] = result.begins[i][first - 1];
                continue;
            }
            result.begins[i][table - 1] = static_cast<std::uint16_t>(end);
            for_each_piece(rows[i], b, table, [&](std::string_view piece) {
                for (const char c : piece) {
                    result.text[end++] = c;
                }
            });
            result.text[end++] = '\0';
        }
    }
    return result;
}

}  // namespace qel::vexa::hwc
