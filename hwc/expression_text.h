// The written form of expressions, for people who read them. It follows from the expression's type, as its
// evaluation does. The table, counted from 1, decides on the warp size alone.
#pragma once

#include <cstdio>
#include <string>
#include <type_traits>

#include "hwc/expression.h"
#include "hwc/operands.h"

namespace qel::vexa::hwc {

template <typename Operand>
using operand_type = std::remove_const_t<Operand>;

template <constant_text name>
std::string text_of(named_counter<name> /*counter*/, unsigned /*table*/) {
    return std::string(name.view());
}
// Before names have become ids, the cycle count is the only counter that has an id.
inline std::string text_of(operand_type<decltype(operands::GPU_CYCLES)> /*counter*/, unsigned /*table*/) {
    return "GPU_CYCLES";
}
inline std::string text_of(operand_type<decltype(operands::BUS_WIDTH)> /*constant*/, unsigned /*table*/) {
    return "BUS_WIDTH";
}
inline std::string text_of(operand_type<decltype(operands::L2_SLICES)> /*constant*/, unsigned /*table*/) {
    return "L2_SLICES";
}
inline std::string text_of(operand_type<decltype(operands::SHADER_CORES)> /*constant*/, unsigned /*table*/) {
    return "SHADER_CORES";
}
inline std::string text_of(number_constant number, unsigned /*table*/) {
    char text[32];
    std::snprintf(text, sizeof text, "%.12g", number.quarters / 4.0);  // any number of quarters in full
    return text;
}
inline std::string text_of(warp_size_constant /*size*/, unsigned table) {
    return std::to_string(warp_sizes[table - 1]);
}

// How tightly the outermost step of an expression binds its operands.
enum class binding { additive, multiplicative, closed };

template <typename Expression>
inline constexpr binding binding_of = binding::closed;
template <operation op, typename Left, typename Right>
inline constexpr binding binding_of<binary<op, Left, Right>> =
    op == operation::add || op == operation::subtract      ? binding::additive
    : op == operation::multiply || op == operation::divide ? binding::multiplicative
                                                           : binding::closed;

constexpr const char* symbol_of(operation op) {
    switch (op) {
        case operation::add:
            return " + ";
        case operation::subtract:
            return " - ";
        case operation::multiply:
            return " * ";
        case operation::divide:
            return " / ";
        case operation::maximum:
            break;
    }
    return ", ";
}

// With no more parentheses than its order of evaluation needs, when steps that bind equally are taken from
// left to right. Steps are rounded one by one, so "a + (b + c)" keeps its parentheses.
template <operation op, typename Left, typename Right>
std::string text_of(const binary<op, Left, Right>& e, unsigned table) {
    const auto enclosed_if = [](bool enclose, const std::string& text) {
        return enclose ? "(" + text + ")" : text;
    };
    if constexpr (op == operation::maximum) {
        return "max(" + text_of(e.left, table) + symbol_of(op) + text_of(e.right, table) + ")";
    } else {
        constexpr binding own = binding_of<binary<op, Left, Right>>;
        return enclosed_if(binding_of<Left> < own, text_of(e.left, table)) + symbol_of(op) +
               enclosed_if(binding_of<Right> <= own, text_of(e.right, table));
    }
}

}  // namespace qel::vexa::hwc
