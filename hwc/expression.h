// Derived counters as expressions over hardware names, written as C++ expressions and evaluated at run time
// without any interpretation: the type of an expression is its whole shape.
//
//     inline constexpr auto fragment_utilization = (FRAG_ACTIVE / GPU_ACTIVE) * 100;
//
// The order of evaluation is the written one, parentheses and all, and each step is one operation of
// saturating_double.
#pragma once

#include <algorithm>
#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <type_traits>

#include "hwc/counter_descriptor.h"
#include "hwc/profiler.h"
#include "hwc/raw_rows.h"
#include "hwc/saturating_double.h"
#include "hwc/table_set.h"

namespace qel::vexa::hwc {

struct expression_base {
    constexpr bool operator==(const expression_base&) const = default;
};
template <typename T>
concept expression = std::derived_from<T, expression_base>;

template <std::size_t size>
struct constant_text {
    char text[size];

    consteval constant_text(const char (&literal)[size]) {  // NOLINT(google-explicit-constructor)
        std::copy_n(literal, size, text);
    }
    constexpr std::string_view view() const { return {text, size - 1}; }
};

// A counter by its hardware name, before the name has become an id.
template <constant_text name>
struct named_counter : expression_base {
    static constexpr auto ids = ids_of(name.view());
};

// A raw counter by its id. It reads as 0 when the profiler's table has no such row.
struct counter_operand : expression_base {
    std::uint32_t id;

    explicit constexpr counter_operand(std::uint32_t the_id) : id(the_id) {}
    saturating_double evaluate(const profiler& /*context*/, const raw_values& values) const {
        return values[id];
    }
};

// The GPU's cycles. They read as 0 when the profiler's table has no such row.
struct cycles_operand : expression_base {
    saturating_double evaluate(const profiler& context, const auto& /*values*/) const {
        return context.cycles_operand();
    }
};

// One of the GPU's own numbers.
template <std::uint32_t profiler::*number>
struct gpu_constant : expression_base {
    saturating_double evaluate(const profiler& context, const auto& /*values*/) const {
        return saturating_double(context.*number);
    }
};

// A number. Held in quarters, because compilers differ in whether a floating-point value can be part of a
// type.
struct number_constant : expression_base {
    std::uint32_t quarters;

    constexpr explicit number_constant(double value) : quarters(static_cast<std::uint32_t>(value * 4)) {
        if (quarters / 4.0 != value) {
            throw "constants of expressions are multiples of a quarter";
        }
    }
    saturating_double evaluate(const profiler& /*context*/, const auto& /*values*/) const {
        return saturating_double::from(quarters / 4.0);
    }
};

// The number of threads in a warp, before it is known for which table.
struct warp_size_constant : expression_base {};

enum class operation { add, subtract, multiply, divide, maximum };

template <operation op, expression Left, expression Right>
struct binary : expression_base {
    Left left;
    Right right;

    constexpr binary(Left the_left, Right the_right) : left(the_left), right(the_right) {}
    saturating_double evaluate(const profiler& context, const auto& values) const {
        const saturating_double a = left.evaluate(context, values);
        const saturating_double b = right.evaluate(context, values);
        switch (op) {
            case operation::add:
                return a + b;
            case operation::subtract:
                return a - b;
            case operation::multiply:
                return a * b;
            case operation::divide:
                return a / b;
            case operation::maximum:
                return max(a, b);
        }
    }
};

constexpr auto operator+(expression auto a, expression auto b) {
    return binary<operation::add, decltype(a), decltype(b)>(a, b);
}
constexpr auto operator-(expression auto a, expression auto b) {
    return binary<operation::subtract, decltype(a), decltype(b)>(a, b);
}
constexpr auto operator*(expression auto a, expression auto b) {
    return binary<operation::multiply, decltype(a), decltype(b)>(a, b);
}
constexpr auto operator*(expression auto a, double b) {
    return a * number_constant(b);
}
constexpr auto operator/(expression auto a, expression auto b) {
    return binary<operation::divide, decltype(a), decltype(b)>(a, b);
}
constexpr auto max(expression auto a, expression auto b) {
    return binary<operation::maximum, decltype(a), decltype(b)>(a, b);
}

// The expression as it is in one table: with ids for hardware names. A name that the table lacks does not
// compile.
template <unsigned table>
constexpr auto resolve(expression auto constant) {
    return constant;
}
template <unsigned table>
constexpr auto resolve(warp_size_constant /*size*/) {
    return number_constant(warp_sizes[table - 1]);
}
template <unsigned table, constant_text name>
constexpr auto resolve(named_counter<name> /*counter*/) {
    const std::optional<std::uint32_t> id = named_counter<name>::ids[table - 1];
    if (!id) {
        throw "the table has no counter with this hardware name";
    }
    return counter_operand(*id);
}
template <unsigned table, operation op, typename Left, typename Right>
constexpr auto resolve(binary<op, Left, Right> e) {
    const auto left = resolve<table>(e.left);
    const auto right = resolve<table>(e.right);
    return binary<op, std::remove_const_t<decltype(left)>, std::remove_const_t<decltype(right)>>(left, right);
}

// The ids that a resolved expression reads, without repetition, in the order of their first appearance.
struct operand_ids {
    static constexpr std::size_t capacity = 16;
    std::array<std::uint32_t, capacity> ids{};
    std::size_t count = 0;

    constexpr auto begin() const { return ids.begin(); }
    constexpr auto end() const { return ids.begin() + count; }
    constexpr void add(std::uint32_t id) {
        if (std::find(ids.begin(), ids.begin() + count, id) == ids.begin() + count) {
            ids.at(count++) = id;
        }
    }
};
constexpr void collect_ids(const expression auto& /*constant*/, operand_ids& /*found*/) {}
constexpr void collect_ids(const counter_operand& counter, operand_ids& found) {
    found.add(counter.id);
}
constexpr void collect_ids(const cycles_operand& /*counter*/, operand_ids& found) {
    found.add(gpu_cycles_id);
}
template <operation op, typename Left, typename Right>
constexpr void collect_ids(const binary<op, Left, Right>& e, operand_ids& found) {
    collect_ids(e.left, found);
    collect_ids(e.right, found);
}

template <expression auto resolved>
inline constexpr operand_ids operands_of = [] {
    operand_ids found;
    collect_ids(resolved, found);
    return found;
}();

// The evaluator of a resolved expression: a function with all ids and constants fixed in it. Tables in which
// the operands have the same ids share one.
template <expression auto resolved>
saturating_double evaluate(const profiler& context, const std::uint32_t* sample) {
    constexpr block_classes classes = [] {
        block_classes found = 0;
        for (const std::uint32_t id : operands_of<resolved>) {
            found |= raw_values::class_of(id);
        }
        return found;
    }();
    if constexpr (classes == 0) {
        static constexpr raw_values none{};
        return resolved.evaluate(context, none);
    } else {
        return resolved.evaluate(context, context.operands_in(sample, classes));
    }
}

}  // namespace qel::vexa::hwc
