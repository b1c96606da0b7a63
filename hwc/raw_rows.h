// The raw counters' four lists, and hardware names across them.
#pragma once

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

// The id of a hardware counter in a table. A name that the table lacks does not compile.
constexpr std::uint32_t id_in_table(unsigned table, std::string_view hardware_name) {
    std::optional<std::uint32_t> found;
    for_each_raw_row([&](const raw_row& row) {
        if (row.hardware_name == hardware_name && row.tables().contains(table)) {
            found = row.id_in(table);
        }
    });
    if (!found) {
        throw "the table has no counter with this hardware name";
    }
    return *found;
}

}  // namespace qel::vexa::hwc
