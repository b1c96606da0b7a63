// The print layer: building messages, and the channels that they go to.
#pragma once

#include <cstdarg>
#include <cstdint>

#include "cdbg/failure.h"
#include "cdbg/src/vexa_cdbg_channels.h"
#include "cdbg/src/vexa_cdbg_result.h"

// The feature word of reports that are made while diagnostics starts.
inline constexpr const char* CDBGP_FEATURE_INIT = "INIT";

// Reports a failure of diagnostics' own start-up: CDBGP_REPORT_INIT(format, ...). A macro, since it notes the
// place where it stands.
#define CDBGP_REPORT_INIT(...)                                                                   \
    cdbgp_print_to_emergency_channel(CDBGP_FEATURE_INIT, cdbgp_module_to_str(CDBGP_MODULE_CDBG), \
                                     CDBGP_LOCATION, __func__, __VA_ARGS__)

// A text in the making. offset + remaining is the capacity.
struct cdbgp_buffer {
    char* text;
    std::uint32_t offset;     // where the next text goes
    std::uint32_t remaining;  // bytes from there to the end, with the terminator
    std::int32_t total;       // the text's length if there were no limit, or a negative formatting error
};

// A message in the making. An emergency message belongs to no channel: its handle is empty.
struct cdbgp_message {
    cdbgp_channel_handle handle;
    cdbgp_buffer buffer;
};

extern "C" {

extern cdbgp_destination_set cdbgp_channel_shared;
extern cdbgp_channel cdbgp_channels[CDBGP_CHANNEL_COUNT];

// Open and close all channels, by the thread that starts diagnostics. The result is the first failure's, with
// nothing left open.
cdbgp_result cdbgp_print_init();
void cdbgp_print_term();

// Whether no thread is at a message of any channel, as far as that can be told: in the child of a fork. The
// channels must be open.
bool cdbgp_print_is_at_rest();

// Prints a report under a header line straight to the platform log, for use when there are no channels. Needs
// nothing of diagnostics, no lock and no heap. A message of more than 1023 bytes is cut. Any thread may call
// it at any time.
[[gnu::format(printf, 5, 6)]] void cdbgp_print_to_emergency_channel(const char* feature, const char* module,
                                                                    const char* location,
                                                                    const char* function, const char* format,
                                                                    ...);

// Appends to the message.
[[gnu::format(printf, 2, 3)]] void cdbgp_message_printf(cdbgp_message* message, const char* format, ...);

// Building a text in `size` bytes at `text`. An error sticks: nothing is appended behind it.
// cdbgp_buffer_finish ends a text that is too long or in error with a marker. Its length is `total`
// afterwards, below the capacity. One thread at a time uses a buffer.
void cdbgp_buffer_init(cdbgp_buffer* buffer, char* text, std::uint32_t size);
[[gnu::format(printf, 2, 3)]] void cdbgp_buffer_printf(cdbgp_buffer* buffer, const char* format, ...);
[[gnu::format(printf, 2, 0)]] void cdbgp_buffer_vprintf(cdbgp_buffer* buffer, const char* format,
                                                        va_list args);
void cdbgp_buffer_finish(cdbgp_buffer* buffer);

// The same repair for a text of which only the length `total` is known, or a negative error. Afterwards
// `total` is below `size`.
void cdbgp_correct_snprintf_for_error(char* text, std::uint32_t size, std::int32_t* total);

}  // extern "C"
