// What the library's load handler needs of operating system support, and what is private to it.
#pragma once

#include <cstdint>
#include <ctime>

#include "osu/vexa_osu.h"

extern "C" {

// Brings the layer up: once, at load, before any other thread uses it. A failure is reported, and the process
// ends.
void osup_startup();

// Brings the layer down at unload, on the thread that unloads the library. The callback gets this thread's
// word, if there are both; no thread's word reaches it afterwards. The static mutexes remain.
void osup_teardown();

}  // extern "C"

// When a wait that begins now ends, on the clock that `now` was read from.
timespec osup_deadline(const timespec& now, std::uint64_t nanoseconds);
