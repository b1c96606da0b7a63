// The result codes of the operations of diagnostics.
#pragma once

#include <cstdint>

enum cdbgp_result : std::uint32_t {
    CDBGP_SUCCESS = 0,
    CDBGP_OUT_OF_MEMORY = 2,
    CDBGP_FAILURE = 3,
};
