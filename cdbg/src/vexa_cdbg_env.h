// The environment store: a dictionary of settings, filled once from a configuration file and from the process
// environment.
#pragma once

#include <cstdint>

#include "cdbg/env.h"
#include "cdbg/src/vexa_cdbg_result.h"

// The bytes of a key or value from a file or the environment, with its terminator.
inline constexpr std::uint32_t CDBGP_ENV_TEXT_SIZE = 1024;

extern "C" {

// Makes the store and fills it. Only the start of diagnostics calls it, before all other initialisers, on one
// thread.
//
// Results: CDBGP_FAILURE, with nothing left behind, if there is no mutex. What can't be read is reported and
// left out, and fails nothing.
cdbgp_result cdbgp_env_init();

// Takes the store down. For the start of diagnostics alone, where a later initialiser has failed.
void cdbgp_env_term();

// Whether no thread reads the store, as far as that can be told: in the child of a fork.
bool cdbgp_env_is_at_rest();

// cdbg_env_get without the start of diagnostics: the store must be there. Any thread may call it.
std::int32_t cdbgp_env_get(const char* name, char* out, std::uint32_t out_size);

// Gives the setting `name`, with or without its prefix, a copy of `value`, or removes it where `value` is
// null. It takes no lock: what calls it fills the store, and nobody else knows of the store yet.
//
// Results: CDBGP_OUT_OF_MEMORY. CDBGP_FAILURE for a value of 1024 bytes and more, for a name that without
// its prefix is empty or has more than 1024 bytes, and for the removal of a setting that is not there. A
// failure leaves the store unchanged, with one exception: a setting whose new value could not be inserted for
// want of memory is gone.
cdbgp_result cdbgp_env_set(const char* name, const char* value);

// Fills the store from the configuration file and then from the process environment, whose settings win. With
// the store's lock held, as cdbgp_env_init holds it. Failures are reported on the emergency channel; each
// ends its source at most.
void cdbgp_env_read_in_default_environment();

}  // extern "C"
