// The converters of everything but floating point. Each first works out what to print, then prints it.
#include "cutils/cstr/src/format_converters.h"

#include <cstddef>
#include <cstring>
#include <limits>

#include "cutils/cstr/vexa_cutils_cstr.h"

namespace {

constexpr char lower_digits[] = "0123456789abcdef";
constexpr char upper_digits[] = "0123456789ABCDEF";
constexpr char octal_digits[] = "01234567";
constexpr std::uint32_t bits_per_octal_digit = 3;
constexpr std::uint32_t bits_per_hexadecimal_digit = 4;

// Octal takes the most digits: 64 bits, three to a digit.
constexpr std::size_t digit_area_size = 22;

constexpr std::uint32_t default_integer_precision = 1;
constexpr std::uint32_t default_pointer_precision = 8;

// The digits of a value, written backwards from the end of their area. Zero has none: it prints as the zeros
// that its precision asks for. Returns the first digit.
char* decimal_digits(char* end, std::uint64_t value) {
    constexpr std::uint32_t base = 10;
    // A 32-bit machine divides 32 bits many times faster than 64.
    for (; value > std::numeric_limits<std::uint32_t>::max(); value /= base) {
        *--end = lower_digits[value % base];
    }
    for (auto low = static_cast<std::uint32_t>(value); low != 0; low /= base) {
        *--end = lower_digits[low % base];
    }
    return end;
}

// The same for a base that is a power of two.
char* binary_digits(char* end, std::uint64_t value, std::uint32_t bits_per_digit, const char* digits) {
    const std::uint64_t mask = (std::uint64_t{1} << bits_per_digit) - 1;
    for (; value != 0; value >>= bits_per_digit) {
        *--end = digits[value & mask];
    }
    return end;
}

std::string_view text_between(const char* start, const char* end) {
    return {start, static_cast<std::size_t>(end - start)};
}

std::int64_t take_signed(cutilsp_cstr_modifier modifier, cutilsp_cstr_arguments* arguments) {
    switch (modifier) {
        case CUTILSP_CSTR_MODIFIER_HH:
            return static_cast<std::int8_t>(va_arg(arguments->list, int));
        case CUTILSP_CSTR_MODIFIER_H:
            return static_cast<std::int16_t>(va_arg(arguments->list, int));
        case CUTILSP_CSTR_MODIFIER_L:
            return va_arg(arguments->list, long);
        case CUTILSP_CSTR_MODIFIER_LL:
            return va_arg(arguments->list, long long);
        case CUTILSP_CSTR_MODIFIER_T:
            return va_arg(arguments->list, std::ptrdiff_t);
        default:
            return va_arg(arguments->list, int);
    }
}

std::uint64_t take_unsigned(cutilsp_cstr_modifier modifier, cutilsp_cstr_arguments* arguments) {
    switch (modifier) {
        case CUTILSP_CSTR_MODIFIER_HH:
            return static_cast<std::uint8_t>(va_arg(arguments->list, unsigned));
        case CUTILSP_CSTR_MODIFIER_H:
            return static_cast<std::uint16_t>(va_arg(arguments->list, unsigned));
        case CUTILSP_CSTR_MODIFIER_L:
            return va_arg(arguments->list, unsigned long);
        case CUTILSP_CSTR_MODIFIER_LL:
            return va_arg(arguments->list, unsigned long long);
        case CUTILSP_CSTR_MODIFIER_Z:
            return va_arg(arguments->list, std::size_t);
        default:
            return va_arg(arguments->list, unsigned);
    }
}

// Prints a text padded with blanks to the section's width.
inline std::int32_t emit_padded(cutilsp_cstr_sink* sink, const cutilsp_cstr_section& section,
                                std::string_view text) {
    const std::size_t padding = section.width > text.size() ? section.width - text.size() : 0;
    const bool left = (section.flags & CUTILSP_CSTR_FLAG_LEFT) != 0;

    std::int32_t result = left ? 0 : cutilsp_cstr_fill(sink, ' ', padding);
    result = result < 0 ? result : cutilsp_cstr_write(sink, text.data(), text.size());
    return result < 0 || !left ? result : cutilsp_cstr_fill(sink, ' ', padding);
}

}  // namespace

std::int32_t cutilsp_cstr_convert_signed(cutilsp_cstr_sink* sink, const cutilsp_cstr_section& section,
                                         cutilsp_cstr_arguments* arguments) {
    const std::int64_t value = take_signed(section.modifier, arguments);
    const bool negative = value < 0;
    const std::string_view prefix = cutilsp_cstr_sign_prefix(negative, section.flags);
    // Negated without a sign, where the lowest value has a magnitude too.
    const std::uint64_t magnitude =
        negative ? 0 - static_cast<std::uint64_t>(value) : static_cast<std::uint64_t>(value);
    char area[digit_area_size];
    char* const end = area + sizeof area;
    const std::string_view digits = text_between(decimal_digits(end, magnitude), end);
    return cutilsp_cstr_emit_section(sink, section, prefix, digits,
                                     cutilsp_cstr_precision(section, default_integer_precision), 0);
}

std::int32_t cutilsp_cstr_convert_unsigned(cutilsp_cstr_sink* sink, const cutilsp_cstr_section& section,
                                           cutilsp_cstr_arguments* arguments) {
    const std::uint64_t value = take_unsigned(section.modifier, arguments);
    const bool alternate = (section.flags & CUTILSP_CSTR_FLAG_ALTERNATE) != 0;
    std::uint32_t precision = cutilsp_cstr_precision(section, default_integer_precision);
    std::string_view prefix;
    char area[digit_area_size];
    char* const end = area + sizeof area;
    const char* start;
    switch (section.conversion) {
        case 'o':
            start = binary_digits(end, value, bits_per_octal_digit, octal_digits);
            if (alternate) {
                // The prefix is a digit too, and does the work of one zero.
                prefix = "0";
                precision -= precision != 0 ? 1 : 0;
            }
            break;
        case 'x':
            start = binary_digits(end, value, bits_per_hexadecimal_digit, lower_digits);
            prefix = alternate && value != 0 ? "0x" : "";
            break;
        case 'X':
            start = binary_digits(end, value, bits_per_hexadecimal_digit, upper_digits);
            prefix = alternate && value != 0 ? "0X" : "";
            break;
        default:
            start = decimal_digits(end, value);
            break;
    }
    return cutilsp_cstr_emit_section(sink, section, prefix, text_between(start, end), precision, 0);
}

std::int32_t cutilsp_cstr_convert_character(cutilsp_cstr_sink* sink, const cutilsp_cstr_section& section,
                                            cutilsp_cstr_arguments* arguments) {
    const char character = static_cast<char>(va_arg(arguments->list, int));
    return emit_padded(sink, section, {&character, 1});
}

std::int32_t cutilsp_cstr_convert_string(cutilsp_cstr_sink* sink, const cutilsp_cstr_section& section,
                                         cutilsp_cstr_arguments* arguments) {
    // With a precision the text needs no terminator, and nothing behind the precision is read.
    const char* text = va_arg(arguments->list, const char*);
    const std::size_t length = section.precision == CUTILSP_CSTR_NO_PRECISION
                                   ? std::strlen(text)
                                   : cutils_cstr_len(text, static_cast<std::uint32_t>(section.precision));
    return emit_padded(sink, section, {text, length});
}

std::int32_t cutilsp_cstr_convert_pointer(cutilsp_cstr_sink* sink, const cutilsp_cstr_section& section,
                                          cutilsp_cstr_arguments* arguments) {
    const auto value = reinterpret_cast<std::uintptr_t>(va_arg(arguments->list, const void*));
    char area[digit_area_size];
    char* const end = area + sizeof area;
    const char* const start = binary_digits(end, value, bits_per_hexadecimal_digit, lower_digits);
    return cutilsp_cstr_emit_section(sink, section, "0x", text_between(start, end),
                                     cutilsp_cstr_precision(section, default_pointer_precision), 0);
}

std::int32_t cutilsp_cstr_convert_count(cutilsp_cstr_sink* sink, const cutilsp_cstr_section& section,
                                        cutilsp_cstr_arguments* arguments) {
    // Only ll stores more than 32 bits, even where a long is wider. That is deliberate. The destination's
    // type is therefore not always what the caller's modifier says, so its bytes are copied.
    void* destination = va_arg(arguments->list, void*);
    const std::int64_t wide = sink->count;
    if (section.modifier == CUTILSP_CSTR_MODIFIER_LL) {
        std::memcpy(destination, &wide, sizeof wide);
    } else {
        std::memcpy(destination, &sink->count, sizeof sink->count);
    }
    return 0;
}
