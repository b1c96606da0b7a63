// The place of a call, for reports that say where they come from.
#pragma once

#include <cstdint>
#if !__has_builtin(__builtin_COLUMN)
#include <source_location>
#endif

namespace qel::vexa::stx {

struct source_location {
    std::uint32_t column;
    std::uint32_t line;
    const char* file;      // below the root of the project and without its ending: "counterfeed/src/start"
    const char* function;  // the enclosing function's bare name

    // Call it without arguments and as a default argument: the place is then the caller's.
    static constexpr source_location current(
#if __has_builtin(__builtin_COLUMN)
        std::uint32_t column = __builtin_COLUMN(),
#else
        // GCC tells the column only here; this class gives functions their full signature, hence not the
        // rest.
        std::uint32_t column = std::source_location::current().column(),
#endif
        std::uint32_t line = __builtin_LINE(), const char* file = __builtin_FILE(),
        const char* function = __builtin_FUNCTION()) {
        return {column, line, file, function};
    }
};

}  // namespace qel::vexa::stx
