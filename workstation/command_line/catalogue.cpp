#include "workstation/command_line/catalogue.h"

#include <fnmatch.h>
#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <map>
#include <numeric>
#include <optional>
#include <set>

#include "hwc/counter_expressions.h"
#include "hwc/hwc_names.h"
#include "hwc/measure_unit.h"
#include "workstation/command_line/program.h"

namespace qel::vexa::command_line {

namespace {

constexpr std::size_t suggestion_count = 3;

const std::string& block_of(const hwc::vexa_counter_descriptor& row) {
    const std::uint32_t id = row.dependencies.empty() ? row.id : row.dependencies.front();
    return block_names()[std::min<std::size_t>(id / hwc::counters_per_block, block_names().size() - 1)];
}

gpu make_gpu(hardware::product product) {
    const hwc::counter_table& table = hwc::product_tables.at(product);
    gpu result{.product = product,
               .table = static_cast<unsigned>(&table - hwc::counter_tables.data()) + 1,
               .counters = {}};
    const std::map<std::uint32_t, std::string> expressions = hwc::counter_expressions(result.table);
    for (const auto& [id, expression] : expressions) {  // in the order of the ids
        const hwc::vexa_counter_descriptor* const row = table.find(id);
        result.counters.push_back({.row = row,
                                   .expression = expression,
                                   .block = block_of(*row),
                                   .unit = unit_text(row->numerator_units, row->denominator_units)});
    }
    return result;
}

bool has_name(const counter& which, const std::string& name) {
    return ::strcasecmp(which.row->name, name.c_str()) == 0 ||
           (!which.is_derived() && ::strcasecmp(which.expression.c_str(), name.c_str()) == 0) ||
           parse_number(name, UINT32_MAX) == which.row->id;
}

bool fits_pattern(const counter& which, const std::string& pattern) {
    return ::fnmatch(pattern.c_str(), which.row->name, FNM_CASEFOLD) == 0 ||
           (!which.is_derived() && ::fnmatch(pattern.c_str(), which.expression.c_str(), FNM_CASEFOLD) == 0);
}

// How many letters must be put in, taken out or replaced to make one text of the other, in any case.
std::size_t edit_distance(const std::string& a, const std::string& b) {
    std::vector<std::size_t> row(b.size() + 1);  // from the part of a so far, to each beginning of b
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 0; i < a.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i + 1;
        for (std::size_t j = 0; j < b.size(); ++j) {
            const bool same = std::tolower(static_cast<unsigned char>(a[i])) ==
                              std::tolower(static_cast<unsigned char>(b[j]));
            const std::size_t replaced = diagonal + (same ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, row[j] + 1, diagonal + 1});
        }
    }
    return row.back();
}

[[noreturn]] void fail_unknown(const gpu& from, const std::string& name) {
    std::multimap<std::size_t, std::string> by_distance;
    for (const counter& each : from.counters) {
        by_distance.emplace(edit_distance(name, each.row->name), each.row->name);
        if (!each.is_derived()) {
            by_distance.emplace(edit_distance(name, each.expression), each.expression);
        }
    }
    std::string message = "product " + std::to_string(static_cast<std::uint32_t>(from.product)) +
                          " has no counter \"" + name + "\"";
    std::size_t count = 0;
    for (const auto& [distance, near] : by_distance) {
        // With more changes than that it is another name, not a slip.
        if (distance > name.size() / 2 || count == suggestion_count) {
            break;
        }
        message += (count++ == 0 ? "; the nearest are:\n  " : "\n  ") + near;
    }
    fail(exit_failure, message);
}

}  // namespace

const std::vector<std::string>& block_names() {
    static const std::vector<std::string> names{"job manager", "tiler", "memory system", "shader core",
                                                "GPU"};
    return names;
}

std::string block_of(std::uint32_t id, const std::string& name) {
    if (id < hwc::first_derived_id) {
        const std::size_t block = id / hwc::counters_per_block;
        return block + 1 < block_names().size() ? block_names()[block]
               : id == hwc::gpu_cycles_id       ? block_names().back()
                                                : "";
    }
    // The id of a derived counter differs from table to table, its name does not.
    static const std::map<std::string, std::string> blocks = [] {
        std::map<std::string, std::string> result;
        for (const hwc::counter_table& table : hwc::counter_tables) {
            for (const hwc::vexa_counter_descriptor& row : table) {
                if (row.evaluator != nullptr) {
                    result.emplace(row.name, block_of(row));
                }
            }
        }
        return result;
    }();
    const auto found = blocks.find(name);
    return found != blocks.end() ? found->second : "";
}

std::string unit_text(std::uint32_t numerator, std::uint32_t denominator) {
    const std::string above = hwc::unit_word(numerator);
    const std::string below = hwc::unit_word(denominator);
    return below.empty() ? above : above.empty() ? "per " + below : above + "/" + below;
}

std::string hexadecimal(std::uint32_t id) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%x", id);
    return text;
}

gpu gpu_argument(const char* text) {
    const std::optional<std::uint64_t> number = parse_number(text, UINT32_MAX);
    if (number && *number < hardware::product_count) {
        return make_gpu(hardware::product{static_cast<std::uint32_t>(*number)});
    }
    std::error_code ec;
    const hardware::product product = hardware::detail::to_product(number.value_or(0), ec);
    if (ec) {
        std::string known;
        for (std::uint32_t each = 0; each < hardware::product_count; ++each) {
            for (const std::uint32_t id : gpu_ids(hardware::product{each})) {
                known += " " + hexadecimal(id);
            }
        }
        fail_usage(std::string("unknown GPU \"") + text + "\": give a product number from 0 to " +
                   std::to_string(hardware::product_count - 1) + ", or a GPU id, masked one of" + known);
    }
    return make_gpu(product);
}

std::vector<gpu> all_gpus() {
    std::vector<gpu> result;
    result.reserve(hwc::product_tables.size());
    for (const auto& [product, table] : hwc::product_tables) {
        result.push_back(make_gpu(product));
    }
    return result;
}

std::vector<std::uint32_t> gpu_ids(hardware::product product) {
    // The id's middle digits are masked out, so that every id is one of these.
    std::vector<std::uint32_t> result;
    for (std::uint32_t family = 0; family < 16; ++family) {
        for (std::uint32_t member = 0; member < 16; ++member) {
            const std::uint32_t id = family << 12 | member;
            std::error_code ec;
            if (hardware::detail::to_product(id, ec) == product && !ec) {
                result.push_back(id);
            }
        }
    }
    return result;
}

std::vector<counter> counters_named(const gpu& from, const std::vector<std::string>& names) {
    if (names.empty()) {
        return from.counters;
    }
    std::set<std::uint32_t> chosen;
    for (const std::string& name : names) {
        const bool is_pattern = name.find_first_of("*?[") != std::string::npos;
        bool found = false;
        for (const counter& each : from.counters) {
            if (is_pattern ? fits_pattern(each, name) : has_name(each, name)) {
                chosen.insert(each.row->id);
                found = true;
            }
        }
        if (!found) {
            fail_unknown(from, name);
        }
    }
    std::vector<counter> result;
    for (const counter& each : from.counters) {
        if (chosen.contains(each.row->id)) {
            result.push_back(each);
        }
    }
    return result;
}

}  // namespace qel::vexa::command_line
