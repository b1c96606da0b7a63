// Start-up of diagnostics on first use, and the state of its failure reports.
#pragma once

#include <pthread.h>

#include <cstdint>

#include "cdbg/src/vexa_cdbg_result.h"

// Kept for failure reports; nothing reads it, deliberately.
struct cdbgp_failure_record {
    std::uint16_t flags;
    pthread_mutex_t lock;
    std::uint64_t ids[2];
    std::uint64_t count;
};

extern "C" {

extern cdbgp_failure_record cdbgp_failure_state;

// Brings diagnostics up unless it is up already. Every public operation calls it first, from any thread and
// as early as before this library's load-time initialisers.
//
// Gives CDBGP_SUCCESS when diagnostics is up, otherwise the code of the initialiser that failed; the next
// call tries again from the start. Gives CDBGP_FAILURE to an initialiser that calls it, for it would wait for
// itself, and for good in the child of a fork that came while another thread was inside diagnostics.
cdbgp_result cdbgp_init();

// Makes cdbgp_failure_state. CDBGP_FAILURE when its mutex can't be made.
cdbgp_result cdbgp_failure_init();

}  // extern "C"
