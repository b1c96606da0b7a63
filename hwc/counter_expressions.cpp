#include "hwc/counter_expressions.h"

#include <optional>
#include <tuple>

#include "hwc/derived_rows.h"
#include "hwc/expression_text.h"
#include "hwc/raw_rows.h"

namespace qel::vexa::hwc {

std::map<std::uint32_t, std::string> counter_expressions(unsigned table) {
    std::map<std::uint32_t, std::string> result{{gpu_cycles_id, text_of(operands::GPU_CYCLES)}};
    const auto add_raw = [&](const auto& rows) {
        for (const raw_row& row : rows) {
            if (const std::optional<std::uint32_t> id = row.id_in(table)) {
                result.emplace(*id, row.hardware_name);
            }
        }
    };
    add_raw(job_manager_rows);
    add_raw(tiler_rows);
    add_raw(memory_system_rows);
    add_raw(shader_core_rows);

    std::uint32_t next_id = first_derived_id;
    const auto add_variant = [&](const auto& variant) {
        if (variant.tables.contains(table)) {
            result.emplace(next_id++, text_of(variant.value));
        }
    };
    const auto add_row = [&](const auto& row) {
        std::apply([&](const auto&... variants) { (add_variant(variants), ...); }, row.variants);
    };
    std::apply([&](const auto&... rows) { (add_row(rows), ...); }, derived_rows);
    return result;
}

}  // namespace qel::vexa::hwc
