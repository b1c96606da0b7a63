// The raw counters' four lists, and hardware names across them.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

#include "hwc/job_manager_rows.h"
#include "hwc/memory_system_rows.h"
#include "hwc/shader_core_rows.h"
#include "hwc/tiler_rows.h"

namespace qel::vexa::hwc {

// Calls take(row) for the rows of all four lists.
constexpr void for_each_raw_row(auto take) {
    const auto take_all = [&take](const auto& rows) {
        for (const raw_row& row : rows) {
            take(row);
        }
    };
    take_all(job_manager_rows);
    take_all(tiler_rows);
    take_all(memory_system_rows);
    take_all(shader_core_rows);
}

// The ids of a hardware counter, by table number less one; nothing for a table that lacks the name.
constexpr std::array<std::optional<std::uint32_t>, table_count> ids_of(std::string_view hardware_name) {
    std::array<std::optional<std::uint32_t>, table_count> result;
    for_each_raw_row([&](const raw_row& row) {
        if (row.hardware_name == hardware_name) {
            for (unsigned table = 1; table <= table_count; ++table) {
                if (row.tables().contains(table)) {
                    result[table - 1] = row.id_in(table);
                }
            }
        }
    });
    return result;
}

}  // namespace qel::vexa::hwc
