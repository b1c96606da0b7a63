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

// The id of a hardware counter in a table. A name that the table lacks does not compile.
constexpr std::uint32_t id_in_table(unsigned table, std::string_view hardware_name) {
    std::optional<std::uint32_t> found;
    const auto search = [&](const auto& rows) {
        for (const raw_row& row : rows) {
            if (row.hardware_name == hardware_name && row.id_in(table)) {
                found = row.id_in(table);
            }
        }
    };
    search(job_manager_rows);
    search(tiler_rows);
    search(memory_system_rows);
    search(shader_core_rows);
    if (!found) {
        throw "the table has no counter with this hardware name";
    }
    return *found;
}

}  // namespace qel::vexa::hwc
