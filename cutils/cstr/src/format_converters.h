// The converters: one for each kind of section, and what those of numbers share.
#pragma once

#include <cstdint>
#include <string_view>

#include "cutils/cstr/src/format_parser.h"
#include "cutils/cstr/src/format_writer.h"

// Each converter takes its argument and delivers its text. Returns 0, or the negative result of the put that
// stopped it.
std::int32_t cutilsp_cstr_convert_signed(cutilsp_cstr_sink* sink, const cutilsp_cstr_section& section,
                                         cutilsp_cstr_arguments* arguments);
std::int32_t cutilsp_cstr_convert_unsigned(cutilsp_cstr_sink* sink, const cutilsp_cstr_section& section,
                                           cutilsp_cstr_arguments* arguments);
std::int32_t cutilsp_cstr_convert_character(cutilsp_cstr_sink* sink, const cutilsp_cstr_section& section,
                                            cutilsp_cstr_arguments* arguments);
std::int32_t cutilsp_cstr_convert_string(cutilsp_cstr_sink* sink, const cutilsp_cstr_section& section,
                                         cutilsp_cstr_arguments* arguments);
std::int32_t cutilsp_cstr_convert_pointer(cutilsp_cstr_sink* sink, const cutilsp_cstr_section& section,
                                          cutilsp_cstr_arguments* arguments);
std::int32_t cutilsp_cstr_convert_float(cutilsp_cstr_sink* sink, const cutilsp_cstr_section& section,
                                        cutilsp_cstr_arguments* arguments);
std::int32_t cutilsp_cstr_convert_count(cutilsp_cstr_sink* sink, const cutilsp_cstr_section& section,
                                        cutilsp_cstr_arguments* arguments);

// What stands before a signed number: "-", or else what the flags ask for, of which "+" outdoes " ".
inline std::string_view cutilsp_cstr_sign_prefix(bool negative, std::uint32_t flags) {
    if (negative) {
        return "-";
    }
    if ((flags & CUTILSP_CSTR_FLAG_PLUS) != 0) {
        return "+";
    }
    return (flags & CUTILSP_CSTR_FLAG_BLANK) != 0 ? " " : "";
}

// The section's precision, or another if it has none.
inline std::uint32_t cutilsp_cstr_precision(const cutilsp_cstr_section& section, std::uint32_t otherwise) {
    return section.precision == CUTILSP_CSTR_NO_PRECISION ? otherwise
                                                          : static_cast<std::uint32_t>(section.precision);
}

// Lays out a number by the section's flags and width.
inline std::int32_t cutilsp_cstr_emit_section(cutilsp_cstr_sink* sink, const cutilsp_cstr_section& section,
                                              std::string_view prefix, std::string_view digits,
                                              std::uint32_t precision, std::uint32_t trailing_zeros) {
    return cutilsp_cstr_emit_number(sink, static_cast<std::uint32_t>(prefix.size()), prefix.data(),
                                    static_cast<std::uint32_t>(digits.size()), digits.data(), section.flags,
                                    section.width, precision, trailing_zeros);
}
