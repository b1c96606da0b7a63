// The format engine against a model of its own: a second parser, with the C library for the layout of
// integers, texts and everyday doubles, and one plain step at a time for the digits of all others.
//
// An input is the size of the buffer, the number of characters that a sink takes before it fails, the length
// of the text for "s", four arguments of 8 bytes, and the format.
#include "cutils/cstr/src/format_engine.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "cutils/cstr/vexa_cutils_cstr.h"

namespace {

constexpr std::size_t arguments_max = 4;
constexpr std::size_t header_size = 3 + arguments_max * sizeof(std::uint64_t);
// What is wider than this has no model. Its runs must still agree with each other.
constexpr std::int64_t modelled_width = 3000;
constexpr std::int32_t sink_failure = -9;
constexpr std::size_t guard_size = 64;
constexpr char guard = '\x5a';

enum class argument_type { plain_int, plain_long, long_long, floating, address };

struct argument {
    argument_type type;
    std::uint64_t bits;
};

// What an input asks for and what must come of it.
struct session {
    std::array<std::uint64_t, arguments_max> raw;
    std::string text;
    std::uint32_t size;
    std::size_t limit;

    std::string format;
    std::vector<argument> arguments;
    std::vector<std::unique_ptr<char[]>> texts;
    std::array<std::int64_t, arguments_max> stored;           // where "n" stores
    std::array<std::int64_t, arguments_max> expected_stored;  // what must be there
    std::string expected;
    bool bad;       // the format is refused behind the expected text
    bool modelled;  // false if the text is too long to be expected
};

void require(bool condition, const char* what) {
    if (!condition) {
        std::fprintf(stderr, "broken: %s\n", what);
        std::abort();
    }
}

// The digits of a finite value, one plain step after the other.
std::string plain_digits(std::uint64_t bits, std::int64_t precision, bool point) {
    const auto biased = static_cast<int>(bits >> 52 & 0x7ff);
    std::uint64_t mantissa = (bits & 0xfffffffffffff) | (biased != 0 ? std::uint64_t{1} << 52 : 0);
    std::int64_t exponent = 0;
    std::int64_t lost = 0;
    for (int i = 1075; i < biased; ++i) {
        if (mantissa >= std::uint64_t{1} << 63) {
            const auto rounded = mantissa / 10 + (mantissa % 10 >= 5 ? 1 : 0);
            lost += static_cast<std::int64_t>(mantissa - rounded * 10);
            mantissa = rounded;
            ++exponent;
        }
        mantissa *= 2;
    }
    for (int i = biased != 0 ? biased : 1; i < 1075; ++i) {
        if (mantissa % 2 == 1 && mantissa <= UINT64_MAX / 10) {
            mantissa *= 10;
            --exponent;
        } else if (mantissa % 2 == 1) {
            lost += std::int64_t{1} << (64 - std::bit_width(mantissa));
        }
        mantissa /= 2;
    }
    mantissa += static_cast<std::uint32_t>(static_cast<std::uint64_t>(lost) * (mantissa >> 48) * 3) >> 17;

    if (const std::int64_t cut = -precision - exponent; cut > 0) {
        exponent = -precision;
        std::uint64_t divisor = cut < 20 ? 1 : 0;
        for (std::int64_t i = 0; i < cut && divisor != 0; ++i) {
            divisor *= 10;
        }
        const std::uint64_t quotient = divisor != 0 ? mantissa / divisor : 0;
        const std::uint64_t remainder = divisor != 0 ? mantissa % divisor : 0;
        mantissa =
            quotient + (remainder > divisor / 2 || (remainder == divisor / 2 && quotient % 2 == 1) ? 1 : 0);
    }
    std::string whole = std::to_string(mantissa);
    if (exponent >= 0) {
        whole.append(mantissa != 0 ? static_cast<std::size_t>(exponent) : 0, '0');
        return whole + (point ? "." : "") + std::string(static_cast<std::size_t>(precision), '0');
    }
    const auto decimals = static_cast<std::size_t>(-exponent);
    if (whole.size() <= decimals) {
        whole.insert(0, decimals + 1 - whole.size(), '0');
    }
    whole.insert(whole.size() - decimals, ".");
    return whole + std::string(static_cast<std::size_t>(precision) - decimals, '0');
}

// A conversion's parts as the model reads them.
struct conversion {
    std::string flags;
    std::int64_t width = 0;
    std::int64_t precision = -1;
    std::string modifier;
    char type = '\0';

    bool has(char flag) const { return flags.find(flag) != std::string::npos; }
};

// Reads a conversion's parts, and the arguments of "*" through take. Returns false if it is bad.
template <typename Take>
bool read(const char*& cursor, conversion& parts, Take take) {
    const std::size_t flag_count = std::strspn(cursor, "#0- +");
    parts.flags.assign(cursor, flag_count);
    cursor += flag_count;
    if (*cursor == '*') {
        ++cursor;
        parts.width = static_cast<std::int32_t>(take(argument_type::plain_int));
        if (parts.width < 0) {
            parts.flags += '-';
            parts.width = std::min<std::int64_t>(-parts.width, INT32_MAX);
        }
    } else {
        const std::size_t digits = std::strspn(cursor, "0123456789");
        if (digits > 10 || std::atoll(std::string(cursor, digits).c_str()) > 2147483639) {
            return false;
        }
        parts.width = std::atoll(std::string(cursor, digits).c_str());
        cursor += digits;
    }
    if (*cursor == '.') {
        ++cursor;
        if (*cursor == '*') {
            ++cursor;
            parts.precision = static_cast<std::int32_t>(take(argument_type::plain_int));
        } else {
            const std::int64_t sign = *cursor == '-' ? -1 : 1;
            cursor += *cursor == '-';
            std::int64_t value = 0;
            for (; *cursor >= '0' && *cursor <= '9'; ++cursor) {
                value = (value * 10 + sign * (*cursor - '0')) % (std::int64_t{1} << 32);
            }
            parts.precision = static_cast<std::int32_t>(value);
        }
    }
    for (const char* modifier : {"hh", "h", "ll", "l", "t", "z"}) {
        if (parts.modifier.empty() && std::strncmp(cursor, modifier, std::strlen(modifier)) == 0) {
            parts.modifier = modifier;
            cursor += std::strlen(modifier);
        }
    }
    parts.type = *cursor;
    const std::string allowed = std::strchr("di", parts.type)     ? " hh h l ll t "
                                : std::strchr("uoxX", parts.type) ? " hh h l ll z "
                                : parts.type == 'f'               ? " hh h l ll t z "
                                : parts.type == 'n'               ? " l ll t z "
                                                                  : " ";
    if (parts.type == '\0' || std::strchr("diuoxXcspfn", parts.type) == nullptr ||
        (!parts.modifier.empty() && allowed.find(" " + parts.modifier + " ") == std::string::npos)) {
        return false;
    }
    ++cursor;
    return true;
}

std::string padded(const conversion& parts, std::string text) {
    const auto width = static_cast<std::size_t>(parts.width);
    if (text.size() < width) {
        text.insert(parts.has('-') ? text.size() : 0, width - text.size(), ' ');
    }
    return text;
}

template <typename Value>
std::string by_c_library(const conversion& parts, const char* modifier, Value value) {
    const std::string format = "%" + parts.flags + "*.*" + modifier + parts.type;
    std::vector<char> text(static_cast<std::size_t>(2 * modelled_width + 512));
    std::snprintf(text.data(), text.size(), format.c_str(), static_cast<int>(parts.width),
                  static_cast<int>(parts.precision), value);
    return text.data();
}

std::string floating_text(const conversion& parts, std::uint64_t bits) {
    const auto value = std::bit_cast<double>(bits);
    const std::int64_t precision = parts.precision < 0 ? 6 : parts.precision;
    if (!std::isfinite(value) || value == 0.0 || (std::fabs(value) < 0x1p16 && precision <= 4)) {
        return by_c_library(parts, "", value);
    }
    std::string sign = parts.has('+') ? "+" : parts.has(' ') ? " " : "";
    if (std::signbit(value)) {
        sign = "-";
    }
    std::string digits = plain_digits(bits, precision, precision > 0 || parts.has('#'));
    if (parts.has('0') && !parts.has('-') &&
        sign.size() + digits.size() < static_cast<std::size_t>(parts.width)) {
        digits.insert(0, static_cast<std::size_t>(parts.width) - sign.size() - digits.size(), '0');
    }
    return padded(parts, sign + digits);
}

// Works out what the format must print. Returns false if it takes too many arguments.
bool predict(session& s) {
    bool enough = true;
    const auto take = [&s, &enough](argument_type type) -> std::uint64_t {
        enough = enough && s.arguments.size() < arguments_max;
        if (!enough) {
            return 0;
        }
        s.arguments.push_back({type, s.raw[s.arguments.size()]});
        return s.arguments.back().bits;
    };
    for (const char* cursor = s.format.c_str(); *cursor != '\0' && enough && !s.bad;) {
        if (*cursor != '%' || cursor[1] == '%') {
            s.expected += *cursor;
            cursor += *cursor == '%' ? 2 : 1;
            continue;
        }
        ++cursor;
        conversion parts;
        s.bad = !read(cursor, parts, take);
        if (s.bad || !enough) {
            continue;
        }
        const bool word = parts.modifier == "l" || parts.modifier == "t" || parts.modifier == "z";
        const bool integer = std::strchr("diuoxX", parts.type) != nullptr;
        const argument_type type = parts.type == 'f'                           ? argument_type::floating
                                   : std::strchr("spn", parts.type) != nullptr ? argument_type::address
                                   : parts.modifier == "ll"                    ? argument_type::long_long
                                   : word                                      ? argument_type::plain_long
                                                                               : argument_type::plain_int;
        const std::size_t index = s.arguments.size();
        const std::uint64_t bits = take(type);
        if (!enough) {
            continue;
        }
        const bool cut = parts.precision >= 0 && static_cast<std::size_t>(parts.precision) < s.text.size();
        const std::string text = cut ? s.text.substr(0, static_cast<std::size_t>(parts.precision)) : s.text;
        if (parts.type == 's') {
            // With a terminator only where one is needed, so that reading behind it is found out.
            s.texts.push_back(std::make_unique<char[]>(text.size() + (cut ? 0 : 1)));
            std::memcpy(s.texts.back().get(), text.data(), text.size());
            s.arguments.back().bits = reinterpret_cast<std::uintptr_t>(s.texts.back().get());
        }
        if (parts.type == 'n') {
            s.arguments.back().bits = reinterpret_cast<std::uintptr_t>(&s.stored[index]);
            const auto count = static_cast<std::int64_t>(s.expected.size());
            s.expected_stored[index] = parts.modifier == "ll" ? count : count | ~std::int64_t{UINT32_MAX};
        }
        const bool text_like = std::strchr("csn", parts.type) != nullptr;
        if (parts.type != 'n' &&
            (parts.width > modelled_width || (!text_like && parts.precision > modelled_width))) {
            s.modelled = false;
            continue;
        }
        if (integer) {
            const bool is_signed = std::strchr("di", parts.type) != nullptr;
            const std::size_t size = parts.modifier == "hh"   ? 1
                                     : parts.modifier == "h"  ? 2
                                     : parts.modifier == "ll" ? 8
                                     : word                   ? sizeof(long)
                                                              : 4;
            const auto unused = static_cast<int>(64 - 8 * size);
            const auto value = static_cast<std::int64_t>(bits << unused);
            s.expected += by_c_library(
                parts, "ll",
                is_signed ? value >> unused : static_cast<std::int64_t>(bits << unused >> unused));
        } else if (parts.type == 'c') {
            s.expected += padded(parts, std::string(1, static_cast<char>(bits)));
        } else if (parts.type == 's') {
            s.expected += padded(parts, text);
        } else if (parts.type == 'p') {
            conversion hexadecimal;
            hexadecimal.precision = parts.precision < 0 ? 8 : parts.precision;
            hexadecimal.type = 'x';
            s.expected += padded(
                parts,
                "0x" + by_c_library(hexadecimal, "ll", std::uint64_t{static_cast<std::uintptr_t>(bits)}));
        } else if (parts.type == 'f') {
            s.expected += floating_text(parts, bits);
        }
    }
    return enough;
}

struct limited_sink {
    std::string text;
    std::size_t limit;
};

std::int32_t put_limited(char character, void* context) {
    auto* sink = static_cast<limited_sink*>(context);
    if (sink->text.size() == sink->limit) {
        return sink_failure;
    }
    sink->text += character;
    return 0;
}

// Formats into a buffer of some size between guards, and returns what became of it.
std::string format_into(std::uint32_t size, const char* format, va_list args, std::int32_t* result) {
    std::string memory(size + 2 * guard_size, guard);
    *result = cutils_cstr_vsnprintf(&memory[guard_size], size, format, args);
    require(memory.substr(0, guard_size) == std::string(guard_size, guard), "guard before the buffer");
    require(memory.substr(guard_size + size) == std::string(guard_size, guard), "guard behind the buffer");
    return memory.substr(guard_size, size);
}

// What a buffer of that size holds of a text.
std::string cut_to(std::uint32_t size, const std::string& text) {
    std::string memory(size, guard);
    if (size != 0) {
        const std::string stored = text.substr(0, size - 1);
        memory.replace(0, stored.size() + 1, stored.c_str(), stored.size() + 1);
    }
    return memory;
}

// Makes all runs. The format's arguments follow.
void run(session* s, ...) {
    va_list args;
    va_start(args, s);
    const auto whole_size = static_cast<std::uint32_t>(s->modelled ? s->expected.size() + 1 : 300);
    std::int32_t whole_result;
    const std::string whole = format_into(whole_size, s->format.c_str(), args, &whole_result);
    va_end(args);

    va_start(args, s);
    std::int32_t cut_result;
    const std::string cut = format_into(s->size, s->format.c_str(), args, &cut_result);
    va_end(args);
    require(cut_result == whole_result, "results of two sizes");
    require(whole_result >= -1 && (whole_result == -1) == s->bad, "result");
    if (!s->modelled) {
        const std::uint32_t stored = std::min(s->size, whole_size);
        require(stored < 2 || cut.substr(0, stored - 1) == whole.substr(0, stored - 1) ||
                    whole.find('\0') != std::string::npos,
                "texts of two sizes");
        return;
    }
    require(s->bad || whole_result == static_cast<std::int32_t>(s->expected.size()), "count");
    require(whole == cut_to(whole_size, s->expected), "text");
    require(cut == cut_to(s->size, s->expected), "cut text");
    require(s->stored == s->expected_stored, "stored count");

    limited_sink taken = {"", s->limit};
    cutilsp_cstr_sink sink = {0, put_limited, &taken};
    va_start(args, s);
    const std::int32_t result = cutilsp_cstr_format_string(&sink, s->format.c_str(), args);
    va_end(args);
    require(result == (s->limit < s->expected.size() ? sink_failure : whole_result), "result of a sink");
    require(taken.text == s->expected.substr(0, s->limit), "text of a sink");
    require(sink.count == static_cast<std::int32_t>(taken.text.size()), "count of a sink");
}

void* address(std::uintptr_t value) {
    return reinterpret_cast<void*>(value);  // NOLINT(performance-no-int-to-ptr): mostly printed
}

// Turns the arguments into real ones, each of its own type, and makes the runs over them.
template <typename... Args>
void pass_arguments(session* s, Args... args) {
    if (sizeof...(Args) == s->arguments.size()) {
        run(s, args...);
        return;
    }
    if constexpr (sizeof...(Args) < arguments_max) {
        const argument& next = s->arguments[sizeof...(Args)];
        switch (next.type) {
            case argument_type::plain_int:
                return pass_arguments(s, args..., static_cast<int>(next.bits));
            case argument_type::plain_long:
                return pass_arguments(s, args..., static_cast<long>(next.bits));
            case argument_type::long_long:
                return pass_arguments(s, args..., static_cast<long long>(next.bits));
            case argument_type::floating:
                return pass_arguments(s, args..., std::bit_cast<double>(next.bits));
            case argument_type::address:
                return pass_arguments(s, args..., address(static_cast<std::uintptr_t>(next.bits)));
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < header_size) {
        return 0;
    }
    session s = {};
    s.size = data[0];
    s.limit = data[1];
    s.text = std::string("the text that is formatted").substr(0, data[2] % 27);
    std::memcpy(s.raw.data(), data + 3, sizeof s.raw);
    // Up to a NUL, as a format ends.
    s.format = std::string(reinterpret_cast<const char*>(data) + header_size, size - header_size);
    s.format.resize(std::strlen(s.format.c_str()));
    s.stored.fill(-1);
    s.expected_stored.fill(-1);
    s.modelled = true;
    if (predict(s)) {
        pass_arguments(&s);
    }
    return 0;
}
