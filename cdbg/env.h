// The settings of this process, by name: what the configuration file and the process environment held when
// diagnostics started.
#pragma once

#include <cstdint>

// In place of a setting's length: there is no such setting, or there is no diagnostics, since it could not
// start or since the process was forked from one that was printing.
inline constexpr std::int32_t CDBG_ENV_ABSENT = -1;

extern "C" {

// Gives the value of the setting `name`, which may be written with or without its prefix "VEXA_". Starts
// diagnostics where that was not done yet. Any thread may call it.
//
// At most `out_size` bytes are written: the value, as far as it fits, and a terminator. With `out_size` 0
// nothing is written and `out` may be null. Returns the length of the whole value, also where less was
// stored, or CDBG_ENV_ABSENT; then nothing was written.
std::int32_t cdbg_env_get(const char* name, char* out, std::uint32_t out_size);

}  // extern "C"
