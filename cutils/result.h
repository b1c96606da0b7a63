// The result codes of the operations of cutils.
#pragma once

#include <cstdint>

enum cutils_result : std::uint32_t {
    CUTILS_SUCCESS = 0,
    CUTILS_OUT_OF_MEMORY = 2,
    CUTILS_FAILURE = 3,
};
