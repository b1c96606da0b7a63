// The converter of floating point, by its own integer arithmetic.
//
// A finite value becomes a 64-bit mantissa and a decimal exponent, by doubling or halving the mantissa once
// for each step of the binary exponent and keeping it in range by factors of ten. What that loses is summed
// up, and in the end the mantissa is corrected by it. The result is exact for short values, and correctly
// rounded for those of everyday size, but not for all: large ones are off from about the 14th digit on. All
// digits are part of the output's definition, so no step may be replaced by a better one.
#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "cutils/cstr/src/format_converters.h"

namespace {

constexpr std::uint32_t default_float_precision = 6;

// The parts of a double.
constexpr std::uint32_t fraction_bits = 52;
constexpr std::uint64_t fraction_mask = (std::uint64_t{1} << fraction_bits) - 1;
constexpr std::int32_t exponent_mask = 0x7ff;
constexpr std::uint32_t sign_shift = 63;
// The biased exponent of a value whose fraction, with its leading bit, is the value itself.
constexpr std::int32_t integer_exponent = 1075;

// A value of about mantissa times 10 to the power of exponent.
struct decimal {
    std::uint64_t mantissa;
    std::int32_t exponent;
};

// Doubles the mantissa so many times, and divides it by ten whenever it is full. Returns the sum of what that
// lost.
std::int32_t scale_up(decimal* value, std::int32_t steps) {
    std::int32_t error = 0;
    for (; steps != 0; --steps) {
        if (value->mantissa >> 63 != 0) {
            const auto remainder = static_cast<std::int32_t>(value->mantissa % 10);
            const bool round_up = remainder >= 5;
            value->mantissa = value->mantissa / 10 + (round_up ? 1 : 0);
            error += round_up ? remainder - 10 : remainder;
            ++value->exponent;
        }
        value->mantissa <<= 1;
    }
    return error;
}

// How many halvings give a mantissa below 2 to the power of 63 room for a factor of ten.
std::int32_t steps_to_room(std::uint64_t mantissa) {
    constexpr std::uint64_t no_room = 0x199999999999999a;
    return (mantissa >= no_room ? 1 : 0) + (mantissa >= 2 * no_room ? 1 : 0) +
           (mantissa >= 4 * no_room ? 1 : 0);
}

// What halving the mantissa so many times loses: each set bit that falls out counts the more, the lower the
// mantissa's highest bit is by then.
std::int32_t lost_by_halving(std::uint64_t mantissa, std::int32_t steps) {
    return static_cast<std::int32_t>((mantissa & ((1U << steps) - 1)) << std::countl_zero(mantissa));
}

// Halves the mantissa so many times. A low bit that is set would be lost: if there is room the mantissa is
// multiplied by ten first, which leaves five times the mantissa after the step. Returns the sum of what was
// lost all the same.
//
// The steps between two such multiplications are taken at once: those that make room, then those that meet a
// clear low bit. Which step comes next is as good as random, so that a branch for each would be mispredicted
// too often.
std::int32_t scale_down(decimal* value, std::int32_t steps) {
    std::uint64_t mantissa = value->mantissa;
    if (mantissa == 0) {
        return 0;
    }
    std::int32_t error = 0;
    for (;;) {
        const std::int32_t full = steps_to_room(mantissa);
        const std::uint64_t roomy = mantissa >> full;
        const std::int32_t even = std::countr_zero(roomy);
        if (full + even >= steps) {
            break;
        }
        error += lost_by_halving(mantissa, full);
        mantissa = (roomy >> even) * 5;
        steps -= full + even + 1;
        --value->exponent;
    }
    error += lost_by_halving(mantissa, std::min(steps_to_room(mantissa), steps));
    value->mantissa = mantissa >> steps;
    return error;
}

decimal to_decimal(std::uint64_t fraction, std::int32_t biased_exponent) {
    // A subnormal value lacks the leading bit and counts from the same exponent as the smallest normal ones.
    decimal value = {.mantissa = fraction, .exponent = 0};
    value.mantissa |= biased_exponent != 0 ? fraction_mask + 1 : 0;
    const std::int32_t steps = std::max(biased_exponent, 1) - integer_exponent;
    const std::int32_t error = steps > 0 ? scale_up(&value, steps) : scale_down(&value, -steps);

    // The product wraps around in 32 bits, and a negative error makes it large rather than negative. That is
    // deliberate.
    const auto top = static_cast<std::uint32_t>(value.mantissa >> 48);
    value.mantissa += (static_cast<std::uint32_t>(error) * top * 3) >> 17;
    return value;
}

constexpr auto powers_of_ten = [] {
    std::array<std::uint64_t, 20> powers{};  // all that 64 bits hold
    std::uint64_t power = 1;
    for (std::uint64_t& entry : powers) {
        entry = power;
        power *= 10;
    }
    return powers;
}();

// Rounds half to even, to so many digits behind the point if there are more.
void cut_to_precision(decimal* value, std::uint32_t precision) {
    const std::int64_t surplus = -std::int64_t{value->exponent} - precision;
    if (surplus <= 0) {
        return;
    }
    value->exponent = -static_cast<std::int32_t>(precision);
    if (surplus >= std::int64_t{powers_of_ten.size()}) {
        value->mantissa = 0;
        return;
    }
    const std::uint64_t divisor = powers_of_ten[static_cast<std::size_t>(surplus)];
    const std::uint64_t quotient = value->mantissa / divisor;
    const std::uint64_t remainder = value->mantissa % divisor;
    value->mantissa = quotient + (divisor >> 1 < remainder + (quotient & 1) ? 1 : 0);
}

// Writes the digits of a value backwards from the end of their area, with a point behind the units if it is
// to be there. Returns the first character.
char* value_digits(char* end, const decimal& value, bool point) {
    char* start = end;
    std::uint64_t mantissa = value.mantissa;
    std::int32_t position = std::min(value.exponent, 0);  // the power of ten of the next digit
    do {
        if (position == 0 && point) {
            *--start = '.';
        }
        if (position < value.exponent) {
            *--start = '0';
        } else {
            *--start = static_cast<char>('0' + mantissa % 10);
            mantissa /= 10;
        }
    } while (position++ < 0 || mantissa != 0);
    return start;
}

// More than any value takes: the largest have 309 digits before the point, and no exponent is below -342,
// since the smallest value is above 10 to the power of -324 and the mantissa has up to 19 digits.
constexpr std::size_t digit_area_size = 511;

}  // namespace

std::int32_t cutilsp_cstr_convert_float(cutilsp_cstr_sink* sink, const cutilsp_cstr_section& section,
                                        cutilsp_cstr_arguments* arguments) {
    const auto bits = std::bit_cast<std::uint64_t>(va_arg(arguments->list, double));
    const std::uint64_t fraction = bits & fraction_mask;
    const std::int32_t biased_exponent = static_cast<std::int32_t>(bits >> fraction_bits) & exponent_mask;
    const std::string_view prefix = cutilsp_cstr_sign_prefix(bits >> sign_shift != 0, section.flags);
    if (biased_exponent == exponent_mask) {
        cutilsp_cstr_section without_zeros = section;
        without_zeros.flags &= ~std::uint32_t{CUTILSP_CSTR_FLAG_ZERO};
        return cutilsp_cstr_emit_section(sink, without_zeros, prefix, fraction == 0 ? "inf" : "nan", 0, 0);
    }

    const std::uint32_t precision = cutilsp_cstr_precision(section, default_float_precision);
    const bool point = precision != 0 || (section.flags & CUTILSP_CSTR_FLAG_ALTERNATE) != 0;
    decimal value = to_decimal(fraction, biased_exponent);
    cut_to_precision(&value, precision);
    char area[digit_area_size];
    char* const end = area + sizeof area;
    const char* const start = value_digits(end, value, point);
    // A precision may ask for any number of decimals that the value doesn't have. The area has no room for
    // them.
    const auto decimals = static_cast<std::uint32_t>(-std::min(value.exponent, 0));
    return cutilsp_cstr_emit_section(sink, section, prefix, {start, static_cast<std::size_t>(end - start)}, 0,
                                     precision - decimals);
}
