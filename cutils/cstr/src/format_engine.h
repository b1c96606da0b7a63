// The format engine: a format and its arguments, turned into characters for a sink.
#pragma once

#include <cstdarg>
#include <cstdint>

#include "cutils/cstr/src/format_writer.h"

extern "C" {

// Formats into the sink. Returns the sink's count, or the negative result of the put that stopped it, or -1
// if the format is bad. What came before a bad conversion has been delivered then. See cutils_cstr_snprintf
// for the format.
[[gnu::format(printf, 2, 0)]] std::int32_t cutilsp_cstr_format_string(cutilsp_cstr_sink* sink,
                                                                      const char* format, va_list args);

}  // extern "C"
