// The fields of the tracing protocol's messages, one after the other. Messages come from files and sockets,
// and any byte of them may be wrong.
#pragma once

#include <bit>
#include <cstdint>
#include <protozero/pbf_reader.hpp>
#include <string>
#include <string_view>

namespace qel::vexa::protocol {

struct field {
    std::uint32_t id;
    protozero::pbf_wire_type type;
    std::uint64_t number;    // of the types varint, fixed64 and fixed32
    std::string_view bytes;  // of the type length_delimited

    bool is_bytes() const { return type == protozero::pbf_wire_type::length_delimited; }
};

// Calls take(field) for each field of a message until that gives false. False when it did or when the message
// is malformed.
template <typename Take>
bool for_each_field(std::string_view message, Take take) {
    try {
        protozero::pbf_reader reader(message.data(), message.size());
        while (reader.next()) {
            field next{.id = reader.tag(), .type = reader.wire_type(), .number = 0, .bytes = {}};
            switch (next.type) {
                case protozero::pbf_wire_type::varint:
                    next.number = reader.get_uint64();
                    break;
                case protozero::pbf_wire_type::fixed64:
                    next.number = reader.get_fixed64();
                    break;
                case protozero::pbf_wire_type::fixed32:
                    next.number = reader.get_fixed32();
                    break;
                default: {
                    const protozero::data_view view = reader.get_view();
                    next.bytes = {view.data(), view.size()};
                    break;
                }
            }
            if (!take(next)) {
                return false;
            }
        }
        return true;
    } catch (const protozero::exception&) {
        return false;
    }
}

// Each takes a field's value; false when the field is not of the type that the protocol gives it.
template <typename Number>
bool take_number(const field& from, Number& number) {
    const bool is_number = from.type == protozero::pbf_wire_type::varint;
    if (is_number) {
        number = static_cast<Number>(from.number);
    }
    return is_number;
}
inline bool take_double(const field& from, double& number) {
    const bool is_double = from.type == protozero::pbf_wire_type::fixed64;
    if (is_double) {
        number = std::bit_cast<double>(from.number);
    }
    return is_double;
}
// As valid UTF-8 without control characters: texts come from elsewhere and go to terminals and pages, where
// nothing in them may act.
bool take_text(const field& from, std::string& text);

}  // namespace qel::vexa::protocol
