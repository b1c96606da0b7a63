#include "hwc/counter_expressions.h"

#include <cstdio>
#include <optional>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

#include "hwc/derived_rows.h"
#include "hwc/raw_rows.h"

namespace qel::vexa::hwc {

namespace {

// What an operand is called. The table, counted from 1, decides on the warp size alone.
template <typename Operand>
using operand_type = std::remove_const_t<Operand>;

template <constant_text name>
std::string text_of(named_counter<name> /*counter*/, unsigned /*table*/) {
    return std::string(name.view());
}
std::string text_of(operand_type<decltype(operands::GPU_CYCLES)> /*counter*/, unsigned /*table*/) {
    return "GPU_CYCLES";
}
std::string text_of(operand_type<decltype(operands::BUS_WIDTH)> /*constant*/, unsigned /*table*/) {
    return "BUS_WIDTH";
}
std::string text_of(operand_type<decltype(operands::L2_SLICES)> /*constant*/, unsigned /*table*/) {
    return "L2_SLICES";
}
std::string text_of(operand_type<decltype(operands::SHADER_CORES)> /*constant*/, unsigned /*table*/) {
    return "SHADER_CORES";
}
std::string text_of(number_constant number, unsigned /*table*/) {
    char text[32];
    std::snprintf(text, sizeof text, "%.12g", number.quarters / 4.0);  // any number of quarters in full
    return text;
}
std::string text_of(warp_size_constant /*size*/, unsigned table) {
    return std::to_string(warp_sizes[table - 1]);
}

constexpr const char* symbol_of(operation op) {
    switch (op) {
        case operation::add:
            return "+";
        case operation::subtract:
            return "-";
        case operation::multiply:
            return "*";
        case operation::divide:
            return "/";
        case operation::maximum:
            break;
    }
    return "max";
}

template <typename Operand>
void add_steps(const Operand& operand, unsigned table, std::vector<std::string>& steps) {
    steps.push_back(text_of(operand, table));
}
template <operation op, typename Left, typename Right>
void add_steps(const binary<op, Left, Right>& e, unsigned table, std::vector<std::string>& steps) {
    add_steps(e.left, table, steps);
    add_steps(e.right, table, steps);
    steps.emplace_back(symbol_of(op));
}

// How tightly the outermost step of an expression binds its operands.
enum class binding { additive, multiplicative, closed };

struct written_expression {
    std::string text;
    binding outermost = binding::closed;

    std::string enclosed_if(bool enclose) const { return enclose ? "(" + text + ")" : text; }
};

written_expression joined(const written_expression& left, const std::string& step,
                          const written_expression& right) {
    if (step == "max") {
        return {"max(" + left.text + ", " + right.text + ")"};
    }
    const binding own = step == "+" || step == "-" ? binding::additive : binding::multiplicative;
    return {
        left.enclosed_if(left.outermost < own) + " " + step + " " + right.enclosed_if(right.outermost <= own),
        own};
}

bool is_operation(const std::string& step) {
    return step == "+" || step == "-" || step == "*" || step == "/" || step == "max";
}

// With no more parentheses than the steps' order needs, when steps that bind equally are taken from left to
// right. Steps are rounded one by one, so "a + (b + c)" keeps its parentheses.
std::string written(const std::vector<std::string>& steps) {
    std::vector<written_expression> parts;
    for (const std::string& step : steps) {
        if (is_operation(step)) {
            const written_expression right = std::move(parts.back());
            parts.pop_back();
            parts.back() = joined(parts.back(), step, right);
        } else {
            parts.push_back({step});
        }
    }
    return std::move(parts.back().text);
}

}  // namespace

std::map<std::uint32_t, std::vector<std::string>> counter_steps(unsigned table) {
    std::map<std::uint32_t, std::vector<std::string>> result;
    add_steps(operands::GPU_CYCLES, table, result[gpu_cycles_id]);
    for_each_raw_row([&](const raw_row& row) {
        if (const std::optional<std::uint32_t> id = row.id_in(table)) {
            result[*id].emplace_back(row.hardware_name);
        }
    });
    std::size_t row_index = 0;
    const auto add_row = [&](const auto& row) {
        const std::uint32_t id = derived_id(table, row_index++);
        const auto add_variant = [&](const auto& variant) {
            if (variant.tables.contains(table)) {
                add_steps(variant.value, table, result[id]);
            }
        };
        std::apply([&](const auto&... variants) { (add_variant(variants), ...); }, row.variants);
    };
    derived_rows.apply([&](const auto&... rows) { (add_row(rows), ...); });
    return result;
}

std::map<std::string, std::uint32_t> ids_of_operands(
    const std::map<std::uint32_t, std::vector<std::string>>& steps) {
    std::map<std::string, std::uint32_t> result;
    for (const auto& [id, of_counter] : steps) {
        if (of_counter.size() == 1) {
            result.emplace(of_counter[0], id);
        }
    }
    return result;
}

std::map<std::uint32_t, std::string> counter_expressions(unsigned table) {
    std::map<std::uint32_t, std::string> result;
    for (const auto& [id, steps] : counter_steps(table)) {
        result.emplace(id, written(steps));
    }
    return result;
}

}  // namespace qel::vexa::hwc
