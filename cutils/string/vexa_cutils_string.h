// Counted text that belongs to somebody else.
#pragma once

#include <cstdint>

#include "cutils/result.h"

struct cutils_string {
    const char* text;  // not necessarily terminated
    std::uint32_t length;
};

// The longest text that cutils_string_from_cstring_nocopy takes, in bytes.
inline constexpr std::uint32_t CUTILS_STRING_LENGTH_MAX = 1024;

extern "C" {

// Points `string` at the NUL-terminated `text`, without its terminator. At most 1025 bytes of `text` are
// read, and `string` is good for as long as the caller keeps them. A text that is null, empty or longer than
// 1024 bytes gives CUTILS_FAILURE and a null string of length 0. Any thread may call it.
cutils_result cutils_string_from_cstring_nocopy(const char* text, cutils_string* string);

// Orders two texts by their unsigned bytes; of two that agree as far as both go, the shorter comes first. The
// result is 0, or negative or positive as memcmp's is. A text may be null if its length is 0. Any thread may
// call it.
std::int32_t cutils_string_cmp(const char* text_a, std::uint32_t length_a, const char* text_b,
                               std::uint32_t length_b);

}  // extern "C"
