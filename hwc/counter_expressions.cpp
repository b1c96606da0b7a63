#include "hwc/counter_expressions.h"

#include <optional>
#include <string_view>
#include <tuple>
#include <type_traits>

#include "hwc/derived_rows.h"
#include "hwc/expression_text.h"
#include "hwc/raw_rows.h"

namespace qel::vexa::hwc {

namespace {

// The expression of each row of a table, by id, in the form that form(expression) or, for the hardware name
// of a raw counter, form(text) gives it.
template <typename Form>
auto expressions_of(unsigned table, Form form) {
    std::map<std::uint32_t, decltype(form(std::string_view()))> result{
        {gpu_cycles_id, form(operands::GPU_CYCLES)}};
    for_each_raw_row([&](const raw_row& row) {
        if (const std::optional<std::uint32_t> id = row.id_in(table)) {
            result.emplace(*id, form(row.hardware_name));
        }
    });
    std::size_t row_index = 0;
    const auto add_row = [&](const auto& row) {
        const std::uint32_t id = derived_id(table, row_index++);
        const auto add_variant = [&](const auto& variant) {
            if (variant.tables.contains(table)) {
                result.emplace(id, form(variant.value));
            }
        };
        std::apply([&](const auto&... variants) { (add_variant(variants), ...); }, row.variants);
    };
    std::apply([&](const auto&... rows) { (add_row(rows), ...); }, derived_rows);
    return result;
}

template <typename Operand>
void add_steps(const Operand& operand, unsigned table, std::vector<std::string>& steps) {
    steps.push_back(text_of(operand, table));
}
template <operation op, typename Left, typename Right>
void add_steps(const binary<op, Left, Right>& e, unsigned table, std::vector<std::string>& steps) {
    add_steps(e.left, table, steps);
    add_steps(e.right, table, steps);
    if constexpr (op == operation::maximum) {
        steps.emplace_back("max");
    } else {
        steps.emplace_back(1, symbol_of(op)[1]);
    }
}

template <typename Form>
inline constexpr bool is_name = std::is_same_v<std::remove_cvref_t<Form>, std::string_view>;

}  // namespace

std::map<std::uint32_t, std::string> counter_expressions(unsigned table) {
    return expressions_of(table, [table](const auto& e) {
        if constexpr (is_name<decltype(e)>) {
            return std::string(e);
        } else {
            return text_of(e, table);
        }
    });
}

std::map<std::uint32_t, std::vector<std::string>> counter_steps(unsigned table) {
    return expressions_of(table, [table](const auto& e) {
        std::vector<std::string> steps;
        if constexpr (is_name<decltype(e)>) {
            steps.emplace_back(e);
        } else {
            add_steps(e, table, steps);
        }
        return steps;
    });
}

}  // namespace qel::vexa::hwc
