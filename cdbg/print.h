// How the rest of the system tells a user of an error.
#pragma once

extern "C" {

// Prints one plain message to stderr and the platform log, formatted by the system's own formatter. A newline
// is added if there is none at the end, and a message of more than 511 bytes is cut. Any thread may call it.
// A message that can't be printed is dropped, and so is every message of a child that was forked while
// another thread printed.
[[gnu::format(printf, 1, 2)]] void cdbg_print_to_error_channel(const char* format, ...);

}  // extern "C"
