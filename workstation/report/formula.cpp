#include "workstation/report/formula.h"

#include <algorithm>
#include <array>
#include <cstdlib>

#include "hwc/counter_descriptor.h"
#include "hwc/counter_expressions.h"
#include "hwc/hwc_names.h"
#include "hwc/measure_unit.h"
#include "hwc/saturating_double.h"

namespace qel::vexa::report {

namespace {

using action = formula::action;

// Units of the tracing protocol, by number.
constexpr std::uint32_t unit_hertz = 13;
constexpr std::uint32_t unit_petahertz = 18;
constexpr std::uint32_t unit_nanosecond = 19;
constexpr std::uint32_t unit_hour = 24;
constexpr std::uint32_t unit_milliwatt = 28;
constexpr std::uint32_t unit_kilowatt = 30;
constexpr std::uint32_t unit_volt = 32;
constexpr std::uint32_t unit_kelvin = 36;

bool is_within(std::uint32_t unit, std::uint32_t first, std::uint32_t last) {
    return first <= unit && unit <= last;
}

action action_of(const std::string& step) {
    return step == "+"     ? action::add
           : step == "-"   ? action::subtract
           : step == "*"   ? action::multiply
           : step == "/"   ? action::divide
           : step == "max" ? action::maximum
                           : action::counter;
}

// The derived counters of a table over ids.
std::map<std::uint32_t, formula> derived_formulas(
    const std::map<std::uint32_t, std::vector<std::string>>& texts) {
    const std::map<std::string, std::uint32_t> ids = hwc::ids_of_operands(texts);
    std::map<std::uint32_t, formula> result;
    for (auto text = texts.lower_bound(hwc::first_derived_id); text != texts.end(); ++text) {
        std::vector<formula::step> steps;
        for (const std::string& each : text->second) {
            const action what = action_of(each);
            if (what != action::counter) {
                steps.push_back({.what = what});
            } else if (const auto id = ids.find(each); id != ids.end()) {
                steps.push_back({.what = what, .id = id->second});
            } else {
                steps.push_back({.what = action::number, .number = std::strtod(each.c_str(), nullptr)});
            }
        }
        result.emplace(text->first, formula(std::move(steps)));
    }
    return result;
}

struct table_formulas {
    std::map<std::string, std::uint32_t> ids;
    std::map<std::uint32_t, formula> formulas;
};

const table_formulas& formulas_of(unsigned table) {
    static const std::vector<table_formulas> all = [] {
        std::vector<table_formulas> result(hwc::table_count);
        for (unsigned number = 1; number <= hwc::table_count; ++number) {
            table_formulas& one = result[number - 1];
            const auto texts = hwc::counter_steps(number);
            for (const auto& [id, steps] : texts) {
                if (id < hwc::first_derived_id) {
                    one.ids.emplace(steps[0], id);
                }
            }
            one.formulas = derived_formulas(texts);
        }
        return result;
    }();
    return all[table - 1];
}

}  // namespace

std::string_view kind_name(counter_kind kind) {
    static constexpr std::array<std::string_view, 5> names{"amount", "rate", "momentary", "ratio",
                                                           "constant"};
    return names[static_cast<std::size_t>(kind)];
}

std::optional<double> formula::evaluate(const source& sum_of) const {
    using hwc::saturating_double;
    std::vector<saturating_double> stack;
    for (const step& each : steps_) {
        if (each.what == action::number) {
            stack.push_back(saturating_double::from(each.number));
            continue;
        }
        if (each.what == action::counter) {
            const std::optional<double> sum = sum_of(each.id);
            if (!sum) {
                return std::nullopt;
            }
            stack.push_back(saturating_double::from(*sum));
            continue;
        }
        const saturating_double right = stack.back();
        stack.pop_back();
        saturating_double& left = stack.back();
        left = each.what == action::add        ? left + right
               : each.what == action::subtract ? left - right
               : each.what == action::multiply ? left * right
               : each.what == action::divide   ? left / right
                                               : max(left, right);
    }
    return stack.empty() ? std::nullopt : std::optional(stack.back().value());
}

formula formula::divisor() const {
    // Where the operand begins whose last step stands before the end.
    const auto begin_of = [this](std::size_t end) {
        std::size_t wanted = 1;
        while (wanted != 0) {
            --end;
            const bool is_operand = steps_[end].what == action::number || steps_[end].what == action::counter;
            wanted = is_operand ? wanted - 1 : wanted + 1;
        }
        return end;
    };
    std::size_t end = steps_.size();
    // A percentage is a division times a hundred.
    if (end > 2 && steps_[end - 1].what == action::multiply && steps_[end - 2].what == action::number) {
        end -= 2;
    }
    if (end == 0 || steps_[end - 1].what != action::divide) {
        return {};
    }
    const std::size_t begin = begin_of(end - 1);
    return formula({steps_.begin() + static_cast<std::ptrdiff_t>(begin),
                    steps_.begin() + static_cast<std::ptrdiff_t>(end - 1)});
}

int formula::degree() const {
    std::vector<int> stack;
    for (const step& each : steps_) {
        if (each.what == action::number) {
            stack.push_back(0);
        } else if (each.what == action::counter) {
            // A counter above the first derived one is a number of the GPU's.
            stack.push_back(each.id < hwc::first_derived_id ? 1 : 0);
        } else {
            const int right = stack.back();
            stack.pop_back();
            int& left = stack.back();
            left = each.what == action::multiply ? left + right
                   : each.what == action::divide ? left - right
                                                 : std::max(left, right);
        }
    }
    return stack.empty() ? 0 : stack.back();
}

bool formula::has_counters() const {
    return std::any_of(steps_.begin(), steps_.end(), [](const step& each) {
        return each.what == action::counter && each.id < hwc::first_derived_id;
    });
}

bool operator==(const formula& left, const formula& right) {
    return std::equal(left.steps_.begin(), left.steps_.end(), right.steps_.begin(), right.steps_.end(),
                      [](const formula::step& a, const formula::step& b) {
                          return a.what == b.what && a.number == b.number && a.id == b.id;
                      });
}

std::optional<known_counters> recognise(const std::vector<counter_description>& counters) {
    known_counters result;
    for (unsigned table = 1; table <= hwc::table_count; ++table) {
        const hwc::counter_table& rows = hwc::counter_tables[table - 1];
        const bool has_all =
            std::all_of(counters.begin(), counters.end(), [&rows](const counter_description& counter) {
                const hwc::vexa_counter_descriptor* const row = rows.find(counter.id);
                return row != nullptr && row->name == counter.name;
            });
        if (has_all) {
            result.tables.push_back(table);
        }
    }
    if (counters.empty() || result.tables.empty()) {
        return std::nullopt;
    }
    const table_formulas& first = formulas_of(result.tables.front());
    result.formulas = first.formulas;
    result.ids = first.ids;
    for (const auto& [id, how] : first.formulas) {
        result.kinds.emplace(id, !how.has_counters() ? counter_kind::constant
                                 : how.degree() == 1 ? counter_kind::amount
                                                     : counter_kind::ratio);
    }
    for (const unsigned table : result.tables) {
        const table_formulas& other = formulas_of(table);
        std::erase_if(result.formulas, [&](const auto& entry) {
            const auto same = other.formulas.find(entry.first);
            return same == other.formulas.end() || !(same->second == entry.second);
        });
        std::erase_if(result.ids, [&](const auto& entry) {
            const auto same = other.ids.find(entry.first);
            return same == other.ids.end() || same->second != entry.second;
        });
    }
    return result;
}

counter_kind kind_of(const counter_description& counter, const std::optional<known_counters>& known) {
    if (known) {
        if (counter.id < hwc::first_derived_id) {
            return counter_kind::amount;
        }
        return known->kinds.at(counter.id);
    }
    bool is_momentary = false;
    for (const std::uint32_t unit : counter.numerator_units) {
        if (unit == hwc::unit_percent) {
            return counter_kind::ratio;
        }
        is_momentary = is_momentary || is_within(unit, unit_hertz, unit_petahertz) ||
                       is_within(unit, unit_milliwatt, unit_kilowatt) ||
                       is_within(unit, unit_volt, unit_kelvin);
    }
    bool is_divided = false;
    for (const std::uint32_t unit : counter.denominator_units) {
        if (is_within(unit, unit_nanosecond, unit_hour)) {
            return counter_kind::rate;
        }
        is_divided = is_divided || unit != hwc::unit_none;
    }
    return is_divided ? counter_kind::ratio : is_momentary ? counter_kind::momentary : counter_kind::amount;
}

}  // namespace qel::vexa::report
