// Conversions with flags, width, precision or length modifier.
#include "cutils/cstr/src/format_parser.h"

#include <limits>

namespace {

constexpr std::uint32_t widest = std::numeric_limits<std::int32_t>::max();
// Up to here, any further digit still gives a width below the widest.
constexpr std::uint32_t widest_before_digit = 214748363;

bool is_digit(char character) {
    return character >= '0' && character <= '9';
}

std::uint32_t digit_value(char character) {
    return static_cast<std::uint32_t>(character - '0');
}

std::uint32_t flag_of(char character) {
    switch (character) {
        case '#':
            return CUTILSP_CSTR_FLAG_ALTERNATE;
        case '0':
            return CUTILSP_CSTR_FLAG_ZERO;
        case '-':
            return CUTILSP_CSTR_FLAG_LEFT;
        case ' ':
            return CUTILSP_CSTR_FLAG_BLANK;
        case '+':
            return CUTILSP_CSTR_FLAG_PLUS;
        default:
            return 0;
    }
}

// The parsers below take what is theirs at the cursor, and return where they stopped.

const char* parse_flags(const char* cursor, cutilsp_cstr_section* section) {
    while (const std::uint32_t flag = flag_of(*cursor)) {
        section->flags |= flag;
        ++cursor;
    }
    return cursor;
}

const char* parse_width(const char* cursor, cutilsp_cstr_arguments* arguments,
                        cutilsp_cstr_section* section) {
    if (*cursor == '*') {
        const int width = va_arg(arguments->list, int);
        const auto bits = static_cast<std::uint32_t>(width);
        section->flags |= width < 0 ? CUTILSP_CSTR_FLAG_LEFT : 0U;
        // The magnitude of the lowest integer is one too many.
        section->width = width < 0 ? std::min(0 - bits, widest) : bits;
        return cursor + 1;
    }
    // A digit that is left standing is no conversion character, and so makes the section bad.
    for (; is_digit(*cursor) && section->width <= widest_before_digit; ++cursor) {
        section->width = section->width * 10 + digit_value(*cursor);
    }
    return cursor;
}

const char* parse_precision(const char* cursor, cutilsp_cstr_arguments* arguments,
                            cutilsp_cstr_section* section) {
    if (*cursor != '.') {
        return cursor;
    }
    ++cursor;
    std::int32_t precision;
    if (*cursor == '*') {
        precision = va_arg(arguments->list, int);
        ++cursor;
    } else {
        const bool negative = *cursor == '-';
        cursor += negative ? 1 : 0;
        // Nothing limits the digits: a number beyond 32 bits wraps around, and may come out negative.
        std::uint32_t magnitude = 0;
        for (; is_digit(*cursor); ++cursor) {
            magnitude = magnitude * 10 + digit_value(*cursor);
        }
        precision = static_cast<std::int32_t>(negative ? 0 - magnitude : magnitude);
    }
    section->precision = precision < 0 ? CUTILSP_CSTR_NO_PRECISION : precision;
    return cursor;
}

const char* parse_modifier(const char* cursor, cutilsp_cstr_section* section) {
    const bool twice = cursor[0] != '\0' && cursor[1] == cursor[0];
    switch (*cursor) {
        case 'h':
            section->modifier = twice ? CUTILSP_CSTR_MODIFIER_HH : CUTILSP_CSTR_MODIFIER_H;
            return cursor + (twice ? 2 : 1);
        case 'l':
            section->modifier = twice ? CUTILSP_CSTR_MODIFIER_LL : CUTILSP_CSTR_MODIFIER_L;
            return cursor + (twice ? 2 : 1);
        case 't':
            section->modifier = CUTILSP_CSTR_MODIFIER_T;
            return cursor + 1;
        case 'z':
            section->modifier = CUTILSP_CSTR_MODIFIER_Z;
            return cursor + 1;
        default:
            return cursor;
    }
}

std::uint32_t effective_flags(const cutilsp_cstr_section& section, const cutilsp_cstr_conversion_rule& rule) {
    std::uint32_t ignored = rule.ignored_flags;
    ignored |= section.precision != CUTILSP_CSTR_NO_PRECISION ? rule.ignored_with_precision : 0;
    ignored |= (section.flags & CUTILSP_CSTR_FLAG_LEFT) != 0 ? CUTILSP_CSTR_FLAG_ZERO : 0U;
    return section.flags & ~ignored;
}

}  // namespace

void cutilsp_cstr_parse_conversion(cutilsp_cstr_parser* parser, cutilsp_cstr_section* section) {
    const char* cursor = parser->cursor;
    cursor = parse_flags(cursor, section);
    cursor = parse_width(cursor, &parser->arguments, section);
    cursor = parse_precision(cursor, &parser->arguments, section);
    cursor = parse_modifier(cursor, section);

    const auto& rule = cutilsp_cstr_conversion_rules[static_cast<unsigned char>(*cursor)];
    if ((rule.modifiers & section->modifier) == 0) {
        // The byte may be the format's end, which must not be passed.
        section->kind = CUTILSP_CSTR_SECTION_BAD;
        return;
    }
    section->kind = rule.kind;
    section->conversion = *cursor;
    section->flags = effective_flags(*section, rule);
    parser->cursor = cursor + 1;
}
