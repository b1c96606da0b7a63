#include "hwc/counter_expressions.h"

#include <optional>
#include <tuple>

#include "hwc/derived_rows.h"
#include "hwc/expression_text.h"
#include "hwc/raw_rows.h"

namespace qel::vexa::hwc {

std::map<std::uint32_t, std::string> counter_expressions(unsigned table) {
    std::map<std::uint32_t, std::string> result{{gpu_cycles_id, text_of(operands::GPU_CYCLES, table)}};
    for_each_raw_row([&](const raw_row& row) {
        if (const std::optional<std::uint32_t> id = row.id_in(table)) {
            result.emplace(*id, row.hardware_name);
        }
    });
    std::size_t row_index = 0;
    const auto add_row = [&](const auto& row) {
        const std::uint32_t id = derived_id(table, row_index++);
        const auto add_variant = [&](const auto& variant) {
            if (variant.tables.contains(table)) {
                result.emplace(id, text_of(variant.value, table));
            }
        };
        std::apply([&](const auto&... variants) { (add_variant(variants), ...); }, row.variants);
    };
    std::apply([&](const auto&... rows) { (add_row(rows), ...); }, derived_rows);
    return result;
}

}  // namespace qel::vexa::hwc
