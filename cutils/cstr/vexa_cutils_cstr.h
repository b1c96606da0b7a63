// Bounded string functions, and a formatter that is independent of the C library's.
//
// All work on their arguments and their own stack alone, so any thread may call them. None takes memory.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <cstring>

extern "C" {

// Formats into buffer, which holds size bytes, and puts a terminator behind the text: what doesn't fit is
// dropped. With size 0 nothing is written and buffer may be null. The arguments must not overlap the buffer.
//
// Returns the number of characters that the whole text has, without the terminator and whatever the size, or
// -1 if the format is bad. The buffer then holds the text of what came before the bad conversion. A text of
// more than 2147483647 characters is reported as 2147483647.
//
// A conversion is "%", flags of "#0- +" in any order, a width, a precision, a length modifier and one of
// - d i: with none, hh, h, l, ll, t;
// - u o x X: with none, hh, h, l, ll, z. So "%zd" and "%tu" are bad. That is deliberate;
// - c s p: without modifier. A text must not be null. A pointer is "0x" and at least eight digits;
// - f: with any of them, always a double, and the only floating point conversion. The digits come from this
//   formatter's own arithmetic. Below a million and to six decimals they are those of the C library, while a
//   large value may show other digits from the 14th on;
// - n: with none, l, z, t it stores 32 bits, with ll 64.
// "%%" is a percent sign, with nothing in between.
[[gnu::format(printf, 3, 4)]] std::int32_t cutils_cstr_snprintf(char* buffer, std::uint32_t size,
                                                                const char* format, ...);
[[gnu::format(printf, 3, 0)]] std::int32_t cutils_cstr_vsnprintf(char* buffer, std::uint32_t size,
                                                                 const char* format, va_list args);

// Compares two texts as unsigned bytes, up to n of them. Returns -1, 0 or 1. A terminator in both ends the
// comparison, so that n may be larger than the texts. With n 0 they may be null.
std::int32_t cutils_cstr_strncmp(const char* a, const char* b, std::uint32_t n);

// Returns the number of bytes before the terminator, or limit if none of the first limit bytes is one. With
// limit 0 the text may be null.
inline std::uint32_t cutils_cstr_len(const char* text, std::uint32_t limit) {
    return limit == 0 ? 0 : static_cast<std::uint32_t>(strnlen(text, limit));
}

// Returns the first byte of the text that equals the low 8 bits of character, or null. The terminator counts
// as part of the text, so that 0 finds its end.
const char* cutils_cstr_strchr(const char* text, std::int32_t character);

// Copies the source up to its terminator, which is copied too, or its first n bytes, to which no terminator
// is added. Nothing behind the copied bytes is written. Returns destination.
//
// If that doesn't fit into destination_size bytes it reports the whole source, up to its terminator, through
// diagnostics and ends the process.
char* cutils_cstr_strncpy(char* destination, std::uint32_t destination_size, const char* source,
                          std::uint32_t n);

}  // extern "C"
