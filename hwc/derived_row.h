// The form of the derived counters' list.
#pragma once

#include <cstddef>
#include <string_view>
#include <tuple>

#include "hwc/expression.h"
#include "hwc/measure_unit.h"
#include "hwc/raw_row.h"
#include "hwc/table_set.h"

namespace qel::vexa::hwc {

// A counter's expression in some of the tables, with what its description adds there.
template <expression Expression>
struct derived_variant {
    table_set tables;
    Expression value;
    std::string_view text;
};

struct units {
    measure_unit numerator;
    measure_unit denominator = unit_none;

    constexpr units(measure_unit unit)
        : numerator(unit) {}  // NOLINT(google-explicit-constructor): the usual case
    constexpr units(measure_unit the_numerator, measure_unit the_denominator)
        : numerator(the_numerator), denominator(the_denominator) {}
};

// A derived counter under one name. It has at most one variant in each table, and none in a table that lacks
// it.
template <typename... Variants>
struct derived_row {
    const char* name;
    units in_units;
    selection selected;
    std::string_view body;  // the description, up to what the variant adds
    std::tuple<Variants...> variants;

    constexpr table_set tables() const {
        return std::apply([](const auto&... variant) { return (variant.tables | ...); }, variants);
    }
    // The place of the table's variant; the number of variants for a table without one.
    constexpr std::size_t variant_in(unsigned table) const {
        return std::apply(
            [table](const auto&... variant) {
                std::size_t place = 0;
                static_cast<void>(((variant.tables.contains(table) || (++place, false)) || ...));
                return place;
            },
            variants);
    }
    // Named, described in each table, and no table in two variants.
    constexpr bool is_sound() const {
        table_set before;
        const auto add = [&](const auto& variant) {
            const bool sound = !variant.tables.empty() && !variant.tables.overlaps(before) &&
                               !(body.empty() && variant.text.empty());
            before = before | variant.tables;
            return sound;
        };
        return *name != '\0' &&
               std::apply([&](const auto&... variant) { return (add(variant) && ...); }, variants);
    }
};

constexpr units per(measure_unit numerator, measure_unit denominator) {
    return {numerator, denominator};
}

template <expression Expression>
constexpr derived_variant<Expression> in(std::string_view list, Expression value,
                                         std::string_view text = {}) {
    return {tables(list), value, text};
}

template <typename... Variants>
constexpr derived_row<Variants...> row(const char* name, units in_units, selection selected,
                                       std::string_view body, Variants... variants) {
    return {name, in_units, selected, body, {variants...}};
}

}  // namespace qel::vexa::hwc
