// Output one character at a time.
#include "cutils/cstr/src/format_writer.h"

namespace {

std::int32_t put_one(cutilsp_cstr_sink* sink, char character) {
    const std::int32_t result = sink->put(character, sink->context);
    if (result < 0) {
        return result;
    }
    cutilsp_cstr_add_to_count(sink, 1);
    return 0;
}

}  // namespace

extern "C" std::int32_t cutilsp_cstr_append(char character, void* context) {
    auto* buffer = static_cast<cutilsp_cstr_buffer_sink*>(context);
    if (buffer->remaining >= 2) {
        *buffer->position++ = character;
        --buffer->remaining;
    }
    return 0;
}

std::int32_t cutilsp_cstr_put_run(cutilsp_cstr_sink* sink, const char* text, std::size_t length) {
    std::int32_t result = 0;
    for (std::size_t i = 0; i != length && result == 0; ++i) {
        result = put_one(sink, text[i]);
    }
    return result;
}

std::int32_t cutilsp_cstr_put_repeatedly(cutilsp_cstr_sink* sink, char character, std::uint64_t times) {
    std::int32_t result = 0;
    for (std::uint64_t i = 0; i != times && result == 0; ++i) {
        result = put_one(sink, character);
    }
    return result;
}
