#include "workstation/protocol/counter_description.h"

#include "hwc/measure_unit.h"
#include "workstation/protocol/messages.h"

namespace qel::vexa::protocol {

namespace {

enum descriptor_field : std::uint32_t { descriptor_counters = 1 };

enum counter_field : std::uint32_t {
    counter_id = 1,
    counter_name = 2,
    counter_text = 3,
    counter_numerator = 7,
    counter_denominator = 8,
    counter_by_default = 9,
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

bool read_counter(std::string_view bytes, counter_description& counter) {
    return for_each_field(bytes, [&counter](const field& each) {
        switch (each.id) {
            case counter_id:
                return take_number(each, counter.id);
            case counter_name:
                return take_text(each, counter.name);
            case counter_text:
                return take_text(each, counter.description);
            case counter_numerator:
                return take_number(each, counter.numerator_units.emplace_back());
            case counter_denominator:
                return take_number(each, counter.denominator_units.emplace_back());
            case counter_by_default:
                return take_number(each, counter.select_by_default);
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
    return for_each_field(bytes, [&counters](const field& each) {
        return each.id != descriptor_counters ||
               (each.is_bytes() && read_counter(each.bytes, counters.emplace_back()));
    });
}

}  // namespace qel::vexa::protocol
