// Permissions: for every module of the system, the classes of debug output that it is allowed.
#pragma once

#include <cstdint>

#include "cdbg/failure.h"
#include "cdbg/src/vexa_cdbg_result.h"

// Modules are numbered below this. What has a name of its own is in cdbgp_module.
inline constexpr std::uint32_t CDBGP_MODULE_COUNT = 34;

enum cdbgp_feature : std::uint32_t {
    CDBGP_FEATURE_BIT_INFO = 1,
    CDBGP_FEATURE_BIT_WARN = 2,
    CDBGP_FEATURE_BIT_ERROR = 4,
    CDBGP_FEATURE_BIT_FAIL = 8,
    // Without failures, deliberately.
    CDBGP_FEATURE_BITS_ALL = CDBGP_FEATURE_BIT_INFO | CDBGP_FEATURE_BIT_WARN | CDBGP_FEATURE_BIT_ERROR,
};

extern "C" {

// The features that each module is allowed. Written by cdbgp_control_init and constant from then on. Nothing
// looks at it yet: every message is printed.
extern std::uint32_t cdbgp_permissions[CDBGP_MODULE_COUNT];

// Fills the permissions from the setting CDBG_PERMISSIONS. Only the start of diagnostics calls it, on one
// thread, once the environment store is there. A bad setting is reported on the emergency channel and counts
// as far as it was understood.
//
// Results: CDBGP_FAILURE if there is no mutex, CDBGP_OUT_OF_MEMORY if the setting can't be held. Both leave
// nothing to take down.
cdbgp_result cdbgp_control_init();

// Takes down what cdbgp_control_init made.
void cdbgp_control_term();

}  // extern "C"
