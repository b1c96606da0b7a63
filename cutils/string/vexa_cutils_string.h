// Counted text that belongs to somebody else. The operations are inline for the dictionary's sake, which does
// both at every look-up, on texts so short that calls would be a good part of the work.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "cutils/cstr/vexa_cutils_cstr.h"
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
inline cutils_result cutils_string_from_cstring_nocopy(const char* text, cutils_string* string) {
    *string = {nullptr, 0};
    if (text == nullptr) {
        return CUTILS_FAILURE;
    }
    const std::uint32_t length = cutils_cstr_len(text, CUTILS_STRING_LENGTH_MAX + 1);
    if (length == 0 || length > CUTILS_STRING_LENGTH_MAX) {
        return CUTILS_FAILURE;
    }
    *string = {text, length};
    return CUTILS_SUCCESS;
}

// Orders two texts by their unsigned bytes; of two that agree as far as both go, the shorter comes first. The
// result is 0, or negative or positive as memcmp's is. A text may be null if its length is 0. Any thread may
// call it.
inline std::int32_t cutils_string_cmp(const char* text_a, std::uint32_t length_a, const char* text_b,
                                      std::uint32_t length_b) {
    if (text_a == text_b && length_a == length_b) {
        return 0;
    }
    const std::uint32_t shorter = std::min(length_a, length_b);
    // memcmp must not be given a null pointer, not even with a length of 0.
    const int order = shorter == 0 ? 0 : std::memcmp(text_a, text_b, shorter);
    if (order != 0 || length_a == length_b) {
        return order;
    }
    return length_a < length_b ? -1 : 1;
}

}  // extern "C"
