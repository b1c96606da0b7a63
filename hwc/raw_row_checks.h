// What is checked of the raw rows' lists while they are compiled.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <span>

#include "hwc/raw_row.h"

namespace qel::vexa::hwc {

// Whether a row stands once in a table, and each id lies in the list's block, behind the four words that no
// counter has, and stands once in a table.
constexpr bool ids_are_sound(std::span<const raw_row> rows, block which) {
    constexpr std::uint32_t words_without_counter = 4;
    const std::uint32_t first_id = static_cast<std::uint32_t>(which) * counters_per_block;
    for (unsigned table = 1; table <= table_count; ++table) {
        std::array<bool, counters_per_block> seen{};
        for (const raw_row& row : rows) {
            const std::optional<std::uint32_t> id = row.id_in(table);
            if (!id) {
                continue;
            }
            const std::uint32_t offset = *id - first_id;
            if (row.at[0].tables.overlaps(row.at[1].tables) || *id < first_id + words_without_counter ||
                offset >= counters_per_block || seen[offset]) {
                return false;
            }
            seen[offset] = true;
        }
    }
    return true;
}

// Whether no table has two rows with one hardware name, in all lists together. Rows of one name are brought
// beside each other first: compilers give up on what takes many steps.
constexpr bool hardware_names_are_unique(std::initializer_list<std::span<const raw_row>> lists) {
    constexpr std::size_t most_rows = 1024;
    std::array<const raw_row*, most_rows> sorted{};
    std::size_t count = 0;
    for (const std::span<const raw_row> rows : lists) {
        for (const raw_row& row : rows) {
            sorted[count++] = &row;
        }
    }
    std::sort(sorted.data(), sorted.data() + count, [](const raw_row* left, const raw_row* right) {
        return left->hardware_name < right->hardware_name;
    });
    table_set with_this_name;
    for (std::size_t i = 0; i < count; ++i) {
        if (i == 0 || sorted[i - 1]->hardware_name != sorted[i]->hardware_name) {
            with_this_name = {};
        }
        if (sorted[i]->tables().overlaps(with_this_name)) {
            return false;
        }
        with_this_name = with_this_name | sorted[i]->tables();
    }
    return true;
}

}  // namespace qel::vexa::hwc
