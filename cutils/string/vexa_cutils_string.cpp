// Counted text: measuring and comparing.
#include "cutils/string/vexa_cutils_string.h"

#include <algorithm>
#include <cstring>

#include "cutils/cstr/vexa_cutils_cstr.h"

cutils_result cutils_string_from_cstring_nocopy(const char* text, cutils_string* string) {
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

std::int32_t cutils_string_cmp(const char* text_a, std::uint32_t length_a, const char* text_b,
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
