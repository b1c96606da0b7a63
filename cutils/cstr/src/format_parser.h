// The formatter's input side: cuts a format into sections, which are runs of plain text and conversions.
#pragma once

#include <array>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "cutils/cstr/src/format_writer.h"

enum cutilsp_cstr_section_kind : std::uint32_t {
    CUTILSP_CSTR_SECTION_BAD,  // not a conversion of this formatter
    CUTILSP_CSTR_SECTION_TEXT,
    CUTILSP_CSTR_SECTION_SIGNED,
    CUTILSP_CSTR_SECTION_UNSIGNED,
    CUTILSP_CSTR_SECTION_CHARACTER,
    CUTILSP_CSTR_SECTION_STRING,
    CUTILSP_CSTR_SECTION_POINTER,
    CUTILSP_CSTR_SECTION_FLOAT,
    CUTILSP_CSTR_SECTION_COUNT,
};

// Length modifiers, as bits so that sets of them can be stated.
enum cutilsp_cstr_modifier : std::uint32_t {
    CUTILSP_CSTR_MODIFIER_NONE = 1,
    CUTILSP_CSTR_MODIFIER_HH = 2,
    CUTILSP_CSTR_MODIFIER_H = 4,
    CUTILSP_CSTR_MODIFIER_L = 8,
    CUTILSP_CSTR_MODIFIER_LL = 16,
    CUTILSP_CSTR_MODIFIER_T = 32,
    CUTILSP_CSTR_MODIFIER_Z = 64,
};

inline constexpr std::int32_t CUTILSP_CSTR_NO_PRECISION = -1;

// The arguments not yet used. A va_list is an array on some machines and a record on others. Decayed, it can
// be kept and passed on in one way on all of them; like any function that is handed a va_list, it uses up the
// caller's.
struct cutilsp_cstr_arguments {
    std::decay_t<va_list> list;
};

// One section of a format. A run of text has kind, text and length alone; a bad section has its kind alone.
struct cutilsp_cstr_section {
    cutilsp_cstr_section_kind kind;
    cutilsp_cstr_modifier modifier;
    std::uint32_t flags;     // without those that others or the conversion cancel
    std::int32_t precision;  // CUTILSP_CSTR_NO_PRECISION if there is none
    std::uint32_t width;     // at most 2147483647
    char conversion;
    const char* text;  // points into the format
    std::size_t length;
};

struct cutilsp_cstr_parser {
    const char* cursor;  // the first byte of the format that no section has covered
    cutilsp_cstr_arguments arguments;
};

// What a conversion character stands for.
struct cutilsp_cstr_conversion_rule {
    cutilsp_cstr_section_kind kind;
    std::uint32_t modifiers;               // those that it takes
    std::uint32_t ignored_flags;           // those without effect
    std::uint32_t ignored_with_precision;  // those without effect if there is a precision
};

// The rule of every byte. One without an entry takes no modifier, not even none, and so is no conversion.
// That z has no signed number and t no unsigned one is deliberate.
inline constexpr auto cutilsp_cstr_conversion_rules = [] {
    constexpr std::uint32_t none = CUTILSP_CSTR_MODIFIER_NONE;
    constexpr std::uint32_t longer = CUTILSP_CSTR_MODIFIER_L | CUTILSP_CSTR_MODIFIER_LL;
    constexpr std::uint32_t shorter = CUTILSP_CSTR_MODIFIER_H | CUTILSP_CSTR_MODIFIER_HH;
    constexpr std::uint32_t t = CUTILSP_CSTR_MODIFIER_T;
    constexpr std::uint32_t z = CUTILSP_CSTR_MODIFIER_Z;
    constexpr std::uint32_t zero = CUTILSP_CSTR_FLAG_ZERO;
    constexpr std::uint32_t alternate = CUTILSP_CSTR_FLAG_ALTERNATE;

    std::array<cutilsp_cstr_conversion_rule, 256> rules{};
    rules['d'] = rules['i'] = {CUTILSP_CSTR_SECTION_SIGNED, none | shorter | longer | t, 0, zero};
    rules['u'] = rules['o'] = {CUTILSP_CSTR_SECTION_UNSIGNED, none | shorter | longer | z, 0, zero};
    rules['x'] = rules['X'] = rules['u'];
    rules['c'] = {CUTILSP_CSTR_SECTION_CHARACTER, none, zero, 0};
    rules['s'] = {CUTILSP_CSTR_SECTION_STRING, none, zero, 0};
    rules['p'] = {CUTILSP_CSTR_SECTION_POINTER, none, zero | alternate, 0};
    rules['f'] = {CUTILSP_CSTR_SECTION_FLOAT, none | shorter | longer | t | z, 0, 0};
    rules['n'] = {CUTILSP_CSTR_SECTION_COUNT, none | longer | t | z, 0, 0};
    return rules;
}();

// Takes the conversion behind a percent sign, and the arguments of "*" that it holds.
void cutilsp_cstr_parse_conversion(cutilsp_cstr_parser* parser, cutilsp_cstr_section* section);

// Makes a section of the text up to the end, which the parser goes on behind.
inline void cutilsp_cstr_take_text(cutilsp_cstr_parser* parser, cutilsp_cstr_section* section,
                                   const char* text, const char* end) {
    section->kind = CUTILSP_CSTR_SECTION_TEXT;
    section->text = text;
    section->length = static_cast<std::size_t>(end - text);
    parser->cursor = end;
}

// Finds the next section. Returns false at the end of the format. Nothing may be parsed behind a bad section.
inline bool cutilsp_cstr_next_section(cutilsp_cstr_parser* parser, cutilsp_cstr_section* section) {
    const char* const start = parser->cursor;
    if (start[0] == '%') {
        const auto& rule = cutilsp_cstr_conversion_rules[static_cast<unsigned char>(start[1])];
        section->modifier = CUTILSP_CSTR_MODIFIER_NONE;
        section->flags = 0;
        section->precision = CUTILSP_CSTR_NO_PRECISION;
        section->width = 0;
        // Most conversions are a percent sign and one character, and need no further parsing.
        if ((rule.modifiers & CUTILSP_CSTR_MODIFIER_NONE) != 0) {
            section->kind = rule.kind;
            section->conversion = start[1];
            parser->cursor = start + 2;
        } else if (start[1] == '%') {
            cutilsp_cstr_take_text(parser, section, start + 1, start + 2);
        } else {
            parser->cursor = start + 1;
            cutilsp_cstr_parse_conversion(parser, section);
        }
        return true;
    }
    if (start[0] == '\0') {
        return false;
    }
    cutilsp_cstr_take_text(parser, section, start, strchrnul(start, '%'));
    return true;
}
