// The loop over the parts: the parser finds a section, its converter makes characters of it, the writer
// counts them.
#include "cutils/cstr/src/format_engine.h"

#include "cutils/cstr/src/format_converters.h"
#include "cutils/cstr/src/format_parser.h"

namespace {

constexpr std::int32_t bad_format = -1;

// Delivers any section by its converter. Results as theirs, or bad_format.
std::int32_t convert(cutilsp_cstr_sink* sink, const cutilsp_cstr_section& section,
                     cutilsp_cstr_arguments* arguments) {
    switch (section.kind) {
        case CUTILSP_CSTR_SECTION_BAD:
            return bad_format;
        case CUTILSP_CSTR_SECTION_TEXT:
            return cutilsp_cstr_write(sink, section.text, section.length);
        case CUTILSP_CSTR_SECTION_SIGNED:
            return cutilsp_cstr_convert_signed(sink, section, arguments);
        case CUTILSP_CSTR_SECTION_UNSIGNED:
            return cutilsp_cstr_convert_unsigned(sink, section, arguments);
        case CUTILSP_CSTR_SECTION_CHARACTER:
            return cutilsp_cstr_convert_character(sink, section, arguments);
        case CUTILSP_CSTR_SECTION_STRING:
            return cutilsp_cstr_convert_string(sink, section, arguments);
        case CUTILSP_CSTR_SECTION_POINTER:
            return cutilsp_cstr_convert_pointer(sink, section, arguments);
        case CUTILSP_CSTR_SECTION_FLOAT:
            return cutilsp_cstr_convert_float(sink, section, arguments);
        case CUTILSP_CSTR_SECTION_COUNT:
            return cutilsp_cstr_convert_count(sink, section, arguments);
    }
    return bad_format;
}

}  // namespace

extern "C" std::int32_t cutilsp_cstr_format_string(cutilsp_cstr_sink* sink, const char* format,
                                                   va_list args) {
    cutilsp_cstr_parser parser = {.cursor = format, .arguments = {args}};
    cutilsp_cstr_section section = {};
    std::int32_t result = 0;
    while (result >= 0 && cutilsp_cstr_next_section(&parser, &section)) {
        result = convert(sink, section, &parser.arguments);
    }
    return result < 0 ? result : sink->count;
}
