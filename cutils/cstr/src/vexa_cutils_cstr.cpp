// The public functions over text: formatting into a buffer, and the bounded string functions.
#include "cutils/cstr/vexa_cutils_cstr.h"

#include <cstring>

#include "cdbg/failure.h"
#include "cutils/cstr/src/format_engine.h"
#include "cutils/cstr/src/format_writer.h"

extern "C" {

// NOLINTNEXTLINE(readability-non-const-parameter): the buffer is written through the sink
std::int32_t cutils_cstr_vsnprintf(char* buffer, std::uint32_t size, const char* format, va_list args) {
    cutilsp_cstr_buffer_sink output = {buffer, size};
    cutilsp_cstr_sink sink = {0, cutilsp_cstr_append, &output};
    const std::int32_t result = cutilsp_cstr_format_string(&sink, format, args);
    if (output.remaining != 0) {
        *output.position = '\0';
    }
    return result;
}

std::int32_t cutils_cstr_snprintf(char* buffer, std::uint32_t size, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const std::int32_t result = cutils_cstr_vsnprintf(buffer, size, format, args);
    va_end(args);
    return result;
}

std::int32_t cutils_cstr_strncmp(const char* a, const char* b, std::uint32_t n) {
    const int order = n == 0 ? 0 : std::strncmp(a, b, n);
    return (order > 0 ? 1 : 0) - (order < 0 ? 1 : 0);
}

const char* cutils_cstr_strchr(const char* text, std::int32_t character) {
    return std::strchr(text, character);
}

char* cutils_cstr_strncpy(char* destination, std::uint32_t destination_size, const char* source,
                          std::uint32_t n) {
    const std::uint32_t length = cutils_cstr_len(source, n);
    const std::uint32_t amount = length + (length < n ? 1 : 0);
    if (amount > destination_size) {
        cdbgp_print_to_important_channel(CDBGP_CHANNEL_ERROR, CDBGP_FEATURE_ERROR,
                                         cdbgp_module_to_str(CDBGP_MODULE_CUTILS), CDBGP_LOCATION, __func__,
                                         "The destination buffer is not big enough to copy \"%s\"", source);
        cdbgp_quit();
    }
    std::memcpy(destination, source, amount);
    return destination;
}

}  // extern "C"
