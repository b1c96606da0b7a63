// The result codes of the operations of diagnostics.
#pragma once

#include <cstdint>

#include "cutils/result.h"

enum cdbgp_result : std::uint32_t {
    CDBGP_SUCCESS = 0,
    CDBGP_OUT_OF_MEMORY = 2,
    CDBGP_FAILURE = 3,
};

// The containers' codes are diagnostics' own.
constexpr cdbgp_result cdbgp_result_of(cutils_result result) {
    static_assert(std::uint32_t{CUTILS_OUT_OF_MEMORY} == std::uint32_t{CDBGP_OUT_OF_MEMORY});
    static_assert(std::uint32_t{CUTILS_FAILURE} == std::uint32_t{CDBGP_FAILURE});
    return static_cast<cdbgp_result>(result);
}
