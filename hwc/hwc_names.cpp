// Builds the counter tables from the lists of rows, and checks the lists while it is compiled.

#include "hwc/hwc_names.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string_view>
#include <tuple>
#include <utility>

#include "hwc/derived_rows.h"
#include "hwc/product.h"
#include "hwc/raw_row_checks.h"
#include "hwc/raw_rows.h"
#include "stx/load_order.h"

namespace qel::vexa::hwc {

namespace {

// One of the four lists, with its rows' full descriptions.
template <block the_block, const auto& the_rows>
struct block_list {
    static constexpr const auto& rows = the_rows;
    static constexpr auto descriptions = describe<the_rows, the_block>();

    static constexpr std::size_t rows_in(unsigned table) {
        return static_cast<std::size_t>(std::count_if(
            rows.begin(), rows.end(), [table](const raw_row& row) { return row.id_in(table).has_value(); }));
    }

    static_assert(ids_are_sound(the_rows, the_block));

    static void add_to(counter_table& result, unsigned table) {
        for (std::size_t i = 0; i < rows.size(); ++i) {
            if (const std::optional<std::uint32_t> id = rows[i].id_in(table)) {
                result.insert({.id = *id,
                               .name = rows[i].name,
                               .description = descriptions.of(i, table),
                               .numerator_units = rows[i].unit,
                               .denominator_units = unit_none,
                               .select_by_default = rows[i].selected == selection::by_default,
                               .dependencies = {},
                               .evaluator = nullptr});
            }
        }
    }
};

using job_manager = block_list<block::job_manager, job_manager_rows>;
using tiler = block_list<block::tiler, tiler_rows>;
using memory_system = block_list<block::memory_system, memory_system_rows>;
using shader_core = block_list<block::shader_core, shader_core_rows>;

static_assert(hardware_names_are_unique({job_manager_rows, tiler_rows, memory_system_rows,
                                         shader_core_rows}));

// A row of the derived list, and one of its variants, by their places.
template <std::size_t row_index>
constexpr const auto& derived_row_at() {
    return derived_rows.at<row_index>();
}
template <std::size_t row_index, std::size_t variant_index>
constexpr const auto& variant_at() {
    return std::get<variant_index>(derived_row_at<row_index>().variants);
}

// The row's own text and the variant's, as one.
template <std::size_t row_index, std::size_t variant_index>
constexpr auto join_text() {
    constexpr std::string_view body = derived_row_at<row_index>().body;
    constexpr std::string_view addition = variant_at<row_index, variant_index>().text;
    constexpr bool both = !body.empty() && !addition.empty();
    std::array<char, body.size() + (both ? 1 : 0) + addition.size() + 1> result{};
    char* end = std::copy(body.begin(), body.end(), result.data());
    if (both) {
        *end++ = ' ';
    }
    std::copy(addition.begin(), addition.end(), end);
    return result;
}
template <std::size_t row_index, std::size_t variant_index>
constexpr auto joined_text = join_text<row_index, variant_index>();

// What a derived row is in a table that has it.
struct derived_entry {
    std::uint32_t id;
    const char* name;
    const char* description;
    units in_units;
    selection selected;
    const operand_ids* dependencies;
    counter_evaluator* evaluator;
};

template <unsigned table, std::size_t row_index>
constexpr derived_entry derived_entry_of() {
    constexpr const auto& row = derived_row_at<row_index>();
    static_assert(row.is_sound());
    constexpr std::size_t variant_index = row.variant_in(table);
    constexpr auto resolved = resolve<table>(variant_at<row_index, variant_index>().value);
    return {.id = derived_id(table, row_index),
            .name = row.name,
            .description = joined_text<row_index, variant_index>.data(),
            .in_units = row.in_units,
            .selected = row.selected,
            .dependencies = &operands_of<resolved>,
            .evaluator = evaluate<resolved>};
}

// How many rows each table has. The lists must come out at these numbers.
struct table_size {
    std::size_t job_manager, tiler, memory_system, shader_core, derived;

    constexpr bool operator==(const table_size&) const = default;
    constexpr std::size_t all() const {
        return job_manager + tiler + memory_system + shader_core + 1 + derived;
    }
};
constexpr std::array<table_size, table_count> table_sizes{{
    {29, 56, 51, 58, 80},
    {29, 56, 51, 58, 80},
    {29, 56, 51, 60, 83},
    {29, 56, 51, 58, 79},
    {29, 56, 51, 58, 79},
    {29, 56, 51, 60, 83},
    {29, 60, 51, 60, 88},
    {29, 60, 51, 60, 89},
    {60, 60, 50, 60, 90},
}};
constexpr bool sizes_are_right() {
    for (unsigned table = 1; table <= table_count; ++table) {
        if (table_sizes[table - 1] !=
            table_size{job_manager::rows_in(table), tiler::rows_in(table), memory_system::rows_in(table),
                       shader_core::rows_in(table),
                       derived_id(table, tables_of_derived_rows.size()) - first_derived_id}) {
            return false;
        }
    }
    return true;
}
static_assert(sizes_are_right());

// The derived rows of a table, in the order of their ids.
template <unsigned table>
constexpr auto derived_entries = []<std::size_t... places>(std::index_sequence<places...>) {
    constexpr auto rows = [] {
        std::array<std::size_t, sizeof...(places)> result{};
        std::size_t count = 0;
        for (std::size_t row = 0; row < tables_of_derived_rows.size(); ++row) {
            if (tables_of_derived_rows[row].contains(table)) {
                result[count++] = row;
            }
        }
        return result;
    }();
    return std::array{derived_entry_of<table, rows[places]>()...};
}
(std::make_index_sequence<table_sizes[table - 1].derived>());

counter_table build_table(unsigned table, std::span<const derived_entry> derived) {
    counter_table result;
    result.reserve(table_sizes[table - 1].all());
    job_manager::add_to(result, table);
    tiler::add_to(result, table);
    memory_system::add_to(result, table);
    shader_core::add_to(result, table);
    result.insert({.id = gpu_cycles_id,
                   .name = "GPU cycles",
                   .description = "This counter increments every clock cycle where the GPU is powered.",
                   .numerator_units = unit_none,
                   .denominator_units = unit_none,
                   .select_by_default = false,
                   .dependencies = {},
                   .evaluator = nullptr});
    for (const derived_entry& row : derived) {
        result.insert({.id = row.id,
                       .name = row.name,
                       .description = row.description,
                       .numerator_units = row.in_units.numerator,
                       .denominator_units = row.in_units.denominator,
                       .select_by_default = row.selected == selection::by_default,
                       .dependencies = {row.dependencies->begin(), row.dependencies->end()},
                       .evaluator = row.evaluator});
    }
    return result;
}
template <unsigned table>
counter_table build_table() {
    return build_table(table, derived_entries<table>);
}

// The table of each product, by the product's number.
constexpr auto table_of_product = std::to_array<unsigned>({1, 2, 3, 7, 8, 4, 5, 6, 7, 8, 9, 9, 9, 9});
static_assert(table_of_product.size() == hardware::product_count);

}  // namespace

[[gnu::init_priority(VEXA_LOAD_ORDER_TABLES)]] const std::array<counter_table, table_count> counter_tables{
    build_table<1>(), build_table<2>(), build_table<3>(), build_table<4>(), build_table<5>(),
    build_table<6>(), build_table<7>(), build_table<8>(), build_table<9>(),
};

// Behind the tables, by its place in this file.
[[gnu::init_priority(
    VEXA_LOAD_ORDER_TABLES)]] const std::map<hardware::product, std::reference_wrapper<const counter_table>>
    product_tables = [] {
        std::map<hardware::product, std::reference_wrapper<const counter_table>> result;
        for (std::uint32_t number = 0; number < table_of_product.size(); ++number) {
            result.emplace(hardware::product{number}, counter_tables[table_of_product[number] - 1]);
        }
        return result;
    }();

}  // namespace qel::vexa::hwc
