#include "workstation/command_line/catalogue.h"

#include <fmt/core.h>
#include <fnmatch.h>
#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <iterator>
#include <map>
#include <numeric>
#include <optional>
#include <set>

#include "hwc/counter_expressions.h"
#include "hwc/hwc_names.h"
#include "workstation/command_line/output.h"
#include "workstation/command_line/program.h"

namespace qel::vexa::command_line {

namespace {

constexpr std::size_t suggestion_count = 3;

bool same_word(const std::string& a, const std::string& b) {
    return ::strcasecmp(a.c_str(), b.c_str()) == 0;
}

const std::string& block_of(const hwc::vexa_counter_descriptor& row) {
    const std::uint32_t id = row.dependencies.empty() ? row.id : row.dependencies.front();
    return block_names()[std::min<std::size_t>(id / hwc::counters_per_block, block_names().size() - 1)];
}

std::vector<counter> counters_of_table(unsigned table) {
    std::vector<counter> result;
    for (const auto& [id, expression] : hwc::counter_expressions(table)) {  // in the order of the ids
        const hwc::vexa_counter_descriptor& row = *hwc::counter_tables[table - 1].find(id);
        counter& next = result.emplace_back();
        next.id = id;
        next.name = row.name;
        next.description = row.description;
        next.numerator_units = {row.numerator_units};
        next.denominator_units = {row.denominator_units};
        next.select_by_default = row.select_by_default;
        next.row = &row;
        next.expression = expression;
        next.block = block_of(row);
    }
    return result;
}

gpu make_gpu(hardware::product product) {
    const hwc::counter_table& table = hwc::product_tables.at(product);
    const unsigned number = static_cast<unsigned>(&table - hwc::counter_tables.data()) + 1;
    return {.name = fmt::format("product {}", static_cast<std::uint32_t>(product)),
            .product = product,
            .table = number,
            .producer = {},
            .counters = counters_of_table(number)};
}

bool has_name(const counter& which, const std::string& name) {
    return same_word(which.name, name) || (!which.is_derived() && same_word(which.expression, name)) ||
           parse_number(name, UINT32_MAX) == which.id;
}

bool fits_pattern(const counter& which, const std::string& pattern) {
    return ::fnmatch(pattern.c_str(), which.name.c_str(), FNM_CASEFOLD) == 0 ||
           (!which.is_derived() && ::fnmatch(pattern.c_str(), which.expression.c_str(), FNM_CASEFOLD) == 0);
}

bool holds_word(const counter& which, const std::string& word) {
    return ::strcasestr(which.name.c_str(), word.c_str()) != nullptr ||
           (!which.is_derived() && ::strcasestr(which.expression.c_str(), word.c_str()) != nullptr);
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

// The topics. Not every GPU has all counters of a topic: what it lacks is left out.
struct preset {
    std::string name;
    std::vector<std::string> patterns;  // all counters when there is none
    bool by_default = false;
    std::string block;
};
const std::vector<preset>& presets() {
    static const std::vector<preset> all{
        {.name = "overview", .patterns = {}, .by_default = true, .block = {}},
        {.name = "memory-bandwidth",
         .patterns = {"GPU_ACTIVE", "L2 cache*", "Output external*", "*bytes*"},
         .block = {}},
        {.name = "fragment-work",
         .patterns = {"GPU_ACTIVE", "Fragment*", "*FPK*", "*ZS*", "Pixels", "Cycles per pixel", "Tiles",
                      "Partial coverage*", "Unchanged tile*"},
         .block = {}},
        {.name = "vertex-and-tiling",
         .patterns = {"GPU_ACTIVE", "Tiler*", "*primitive*", "*cull*", "Position*", "Varying*", "IDVS*",
                      "Non-fragment*"},
         .block = {}},
        {.name = "shader-core", .patterns = {}, .by_default = true, .block = "shader core"},
        {.name = "everything", .patterns = {}, .block = {}},
    };
    return all;
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

gpu gpu_argument(const std::string& text) {
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
                known += fmt::format(" {:#x}", id);
            }
        }
        fail_usage(fmt::format(
            "unknown GPU \"{}\": give a product number from 0 to {}, or a GPU id, masked one of{}", text,
            hardware::product_count - 1, known));
    }
    return make_gpu(product);
}

gpu offered_gpu(const protocol::counter_source& offer) {
    gpu result{.name = "this device",
               .product = std::nullopt,
               .table = 0,
               .producer = offer.producer,
               .counters = {}};
    for (unsigned table = 1; table <= hwc::table_count; ++table) {
        const hwc::counter_table& known = hwc::counter_tables[table - 1];
        if (offer.counters.size() == known.size() &&
            std::all_of(offer.counters.begin(), offer.counters.end(), [&known](const auto& each) {
                const hwc::vexa_counter_descriptor* const row = known.find(each.id);
                return row != nullptr && row->name == each.name;
            })) {
            result.table = table;
            result.counters = counters_of_table(table);
            return result;
        }
    }
    for (const protocol::counter_description& each : offer.counters) {
        result.counters.emplace_back().counter_description::operator=(each);
    }
    std::sort(result.counters.begin(), result.counters.end(),
              [](const counter& a, const counter& b) { return a.id < b.id; });
    return result;
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

bool has_unit(const counter& which, const std::string& unit) {
    const auto is_one = [&unit](const std::vector<std::uint32_t>& units) {
        return std::any_of(units.begin(), units.end(), [&unit](std::uint32_t each) {
            const std::string word = protocol::unit_text({each}, {});
            return !word.empty() && same_word(unit, word);
        });
    };
    const std::string whole = which.unit();
    return same_word(unit, whole.empty() ? "none" : whole) || is_one(which.numerator_units) ||
           is_one(which.denominator_units);
}

std::vector<counter> counters_named(const gpu& from, const std::vector<std::string>& names,
                                    bare_word otherwise) {
    if (names.empty()) {
        return from.counters;
    }
    std::set<std::uint32_t> chosen;
    for (const std::string& name : names) {
        const bool is_pattern = name.find_first_of("*?[") != std::string::npos;
        const auto choose = [&](auto fits) {
            bool found = false;
            for (const counter& each : from.counters) {
                if (fits(each, name)) {
                    chosen.insert(each.id);
                    found = true;
                }
            }
            return found;
        };
        if (!choose(is_pattern ? fits_pattern : has_name) &&
            (is_pattern || otherwise == bare_word::refused || !choose(holds_word))) {
            fail(exit_failure,
                 fmt::format("{} has no counter \"{}\"{}", from.name, name, nearest_names(from, name)));
        }
    }
    std::vector<counter> result;
    std::copy_if(from.counters.begin(), from.counters.end(), std::back_inserter(result),
                 [&chosen](const counter& each) { return chosen.contains(each.id); });
    return result;
}

std::vector<counter> with_operands(const gpu& from, const std::vector<counter>& chosen) {
    const std::map<std::uint32_t, std::vector<std::string>> steps =
        from.table != 0 ? hwc::counter_steps(from.table)
                        : std::map<std::uint32_t, std::vector<std::string>>();
    const std::map<std::string, std::uint32_t> ids = hwc::ids_of_operands(steps);
    std::set<std::uint32_t> wanted;
    for (const counter& each : chosen) {
        wanted.insert(each.id);
        const auto expression = steps.find(each.id);
        if (expression == steps.end()) {
            continue;
        }
        for (const std::string& step : expression->second) {
            if (const auto operand = ids.find(step); operand != ids.end()) {
                wanted.insert(operand->second);
            }
        }
    }
    std::vector<counter> result;
    std::copy_if(from.counters.begin(), from.counters.end(), std::back_inserter(result),
                 [&wanted](const counter& each) { return wanted.count(each.id) != 0; });
    return result;
}

std::string nearest_names(const gpu& from, const std::string& name) {
    std::multimap<std::size_t, std::string> by_distance;
    for (const counter& each : from.counters) {
        by_distance.emplace(edit_distance(name, each.name), each.name);
        if (!each.is_derived() && !each.expression.empty()) {
            by_distance.emplace(edit_distance(name, each.expression), each.expression);
        }
    }
    std::string result;
    std::size_t count = 0;
    for (const auto& [distance, near] : by_distance) {
        // With more changes than that it is another name, not a slip.
        if (distance > name.size() / 2 || count == suggestion_count) {
            break;
        }
        result += (count++ == 0 ? "; the nearest are:\n  " : "\n  ") + near;
    }
    return result;
}

const std::vector<std::string>& preset_names() {
    static const std::vector<std::string> names = [] {
        std::vector<std::string> result;
        for (const preset& each : presets()) {
            result.push_back(each.name);
        }
        return result;
    }();
    return names;
}

std::vector<counter> preset_counters(const gpu& from, const std::string& name) {
    const auto found = std::find_if(presets().begin(), presets().end(),
                                    [&name](const preset& each) { return each.name == name; });
    if (found == presets().end()) {
        fail_usage(fmt::format("unknown preset \"{}\": there are {}", name, joined(preset_names(), ", ")));
    }
    std::vector<counter> result;
    std::copy_if(from.counters.begin(), from.counters.end(), std::back_inserter(result),
                 [&found](const counter& each) {
                     return (!found->by_default || each.select_by_default) &&
                            (found->block.empty() || each.block == found->block) &&
                            (found->patterns.empty() ||
                             std::any_of(found->patterns.begin(), found->patterns.end(),
                                         [&each](const auto& one) { return fits_pattern(each, one); }));
                 });
    if (result.empty()) {
        fail(exit_failure, fmt::format("{} has no counters for the preset {}", from.name, name));
    }
    return result;
}

}  // namespace qel::vexa::command_line
