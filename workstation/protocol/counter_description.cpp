#include "workstation/protocol/counter_description.h"

#include <algorithm>
#include <array>
#include <protozero/varint.hpp>

#include "hwc/measure_unit.h"
#include "workstation/protocol/messages.h"

namespace qel::vexa::protocol {

namespace {

enum descriptor_field : std::uint32_t {
    descriptor_counters = 1,
    descriptor_blocks = 2,
    descriptor_groups = 6,
};
// Of blocks and of groups, which are alike otherwise.
struct group_fields {
    std::uint32_t id, name, counters;
};
constexpr group_fields fields_of_block{.id = 0, .name = 3, .counters = 5};  // no group has a block's id
constexpr group_fields fields_of_group{.id = 1, .name = 2, .counters = 4};

enum counter_field : std::uint32_t {
    counter_id = 1,
    counter_name = 2,
    counter_text = 3,
    counter_numerator = 7,
    counter_denominator = 8,
    counter_by_default = 9,
    counter_groups = 10,
};

// The groups that the protocol has, by its numbers. The first is that of counters in no group.
constexpr std::array group_words{"",           "system", "vertices", "fragments",
                                 "primitives", "memory", "compute",  "ray tracing"};

// A block or a group that a producer has made for its counters.
struct counter_group {
    std::uint32_t id = 0;  // 0 of a block
    std::string name;
    std::vector<std::uint32_t> counters;

    bool has(std::uint32_t counter) const {
        return std::find(counters.begin(), counters.end(), counter) != counters.end();
    }
};

std::string words_of(const std::vector<std::uint32_t>& units) {
    std::string result;
    for (const std::uint32_t unit : units) {
        const char* const known = hwc::unit_word(unit);
        const std::string word = known != nullptr ? known : "unit " + std::to_string(unit);
        result += (result.empty() || word.empty() ? "" : " ") + word;
    }
    return result;
}

// Adds the values of a repeated number, which stand one by one or packed together.
bool take_numbers(const field& from, std::vector<std::uint32_t>& numbers) {
    if (!from.is_bytes()) {
        return take_number(from, numbers.emplace_back());
    }
    try {
        const char* next = from.bytes.data();
        const char* const end = next + from.bytes.size();
        while (next != end) {
            numbers.push_back(static_cast<std::uint32_t>(protozero::decode_varint(&next, end)));
        }
        return true;
    } catch (const protozero::exception&) {
        return false;
    }
}

bool read_group(std::string_view bytes, const group_fields& fields, counter_group& group) {
    return for_each_field(bytes, [&](const field& each) {
        return each.id == fields.name       ? take_text(each, group.name)
               : each.id == fields.counters ? take_numbers(each, group.counters)
               : each.id == fields.id       ? take_number(each, group.id)
                                            : true;
    });
}

// The name of the group that lists the counter, or of the first of the protocol's groups that it names
// itself, which a producer can give another name.
std::string group_of(const counter_description& counter, const std::vector<std::uint32_t>& named,
                     const std::vector<counter_group>& groups) {
    for (const counter_group& group : groups) {
        if (group.has(counter.id)) {
            return group.name;
        }
    }
    for (const std::uint32_t id : named) {
        const auto same = std::find_if(groups.begin(), groups.end(),
                                       [id](const counter_group& group) { return group.id == id; });
        if (id != 0 && (same != groups.end() || id < group_words.size())) {
            return same != groups.end() ? same->name : group_words[id];
        }
    }
    return {};
}

bool read_counter(std::string_view bytes, counter_description& counter, std::vector<std::uint32_t>& groups) {
    return for_each_field(bytes, [&](const field& each) {
        switch (each.id) {
            case counter_id:
                return take_number(each, counter.id);
            case counter_name:
                return take_text(each, counter.name);
            case counter_text:
                return take_text(each, counter.description);
            case counter_numerator:
                return take_numbers(each, counter.numerator_units);
            case counter_denominator:
                return take_numbers(each, counter.denominator_units);
            case counter_by_default:
                return take_number(each, counter.select_by_default);
            case counter_groups:
                return take_numbers(each, groups);
            default:
                return true;
        }
    });
}

}  // namespace

std::string unit_text(const std::vector<std::uint32_t>& numerator,
                      const std::vector<std::uint32_t>& denominator) {
    const std::string above = words_of(numerator);
    const std::string below = words_of(denominator);
    return below.empty() ? above : above.empty() ? "per " + below : above + "/" + below;
}

std::string counter_description::unit() const {
    return unit_text(numerator_units, denominator_units);
}

bool read_counter_descriptor(std::string_view bytes, std::vector<counter_description>& counters) {
    const std::size_t first = counters.size();
    std::vector<std::vector<std::uint32_t>> named;  // the groups that each counter names
    std::vector<counter_group> groups;
    const bool is_whole = for_each_field(bytes, [&](const field& each) {
        switch (each.id) {
            case descriptor_counters:
                return each.is_bytes() &&
                       read_counter(each.bytes, counters.emplace_back(), named.emplace_back());
            case descriptor_blocks:
                return each.is_bytes() && read_group(each.bytes, fields_of_block, groups.emplace_back());
            case descriptor_groups:
                return each.is_bytes() && read_group(each.bytes, fields_of_group, groups.emplace_back());
            default:
                return true;
        }
    });
    for (std::size_t i = 0; i < named.size(); ++i) {
        counters[first + i].group = group_of(counters[first + i], named[i], groups);
    }
    return is_whole;
}

}  // namespace qel::vexa::protocol
