// Channels: named streams of debug messages, each with its own ring of message slots and a fixed set of
// destinations. A message is built in a slot and sent, by the thread that built it, when the slot is handed
// back. The ring keeps the latest messages as history.
#pragma once

#include <pthread.h>

#include <cstdint>
#include <cstdio>

#include "cdbg/failure.h"
#include "cdbg/src/vexa_cdbg_result.h"
#include "cutils/ring_buffer/vexa_cutils_ring_buffer.h"

// The channels beside CDBGP_CHANNEL_ERROR, which the layers below know too.
enum cdbgp_channel_index : std::uint32_t {
    CDBGP_CHANNEL_INFO = 0,
    CDBGP_CHANNEL_WARN = 1,
    CDBGP_CHANNEL_VERBOSE = 3,
    CDBGP_CHANNEL_COUNT = 4,
};

// The destinations' places in a set. They are opened, written and closed in the order platform, file, stderr,
// stdout.
enum cdbgp_destination_index : std::uint32_t {
    CDBGP_DEST_STDOUT_INDEX,
    CDBGP_DEST_STDERR_INDEX,
    CDBGP_DEST_FILE_INDEX,
    CDBGP_DEST_PLATFORM_INDEX,
    CDBGP_DEST_COUNT
};

enum cdbgp_destination_bit : std::uint32_t {
    CDBGP_DEST_STDOUT = 1U << CDBGP_DEST_STDOUT_INDEX,
    CDBGP_DEST_STDERR = 1U << CDBGP_DEST_STDERR_INDEX,
    CDBGP_DEST_FILE = 1U << CDBGP_DEST_FILE_INDEX,
    CDBGP_DEST_PLATFORM = 1U << CDBGP_DEST_PLATFORM_INDEX,  // the platform log
};

enum cdbgp_newline_mode : std::uint32_t {
    CDBGP_NEWLINE_LF = 0,
    CDBGP_NEWLINE_CRLF = 1,
    CDBGP_NEWLINE_MODE_COUNT
};

// One destination's open state.
struct cdbgp_destination {
    union {
        std::FILE** stream;     // the process's pointer to stdout or stderr, or own_stream of this record
        std::int32_t priority;  // of the platform log
    };
    std::FILE* own_stream;
    pthread_mutex_t lock;  // only where the destination's flags ask for one
};

struct cdbgp_destination_set {
    std::uint32_t requested;  // destination bits asked for
    std::uint32_t active;     // destination bits that opened
    cdbgp_destination destinations[CDBGP_DEST_COUNT];
    const char* file_name;        // of the file destination
    std::uint32_t channel_index;  // gives the platform log's priority
};

struct cdbgp_channel {
    cutils_ring_buffer ring;
    std::uint32_t entry_size;                    // bytes of a slot
    cdbgp_destination_set private_destinations;  // this channel's alone
    cdbgp_destination_set* shared;               // all channels'
    std::uint32_t shared_active;                 // those of `shared` that this channel uses
    std::uint32_t conversion_size;               // 0 when there is no conversion buffer, and so no lock
    pthread_mutex_t conversion_lock;
    char* conversion_buffer;
};

// What a writer holds between lock and unlock.
struct cdbgp_channel_handle {
    cdbgp_channel* channel;
    cutils_ring_buffer_slot* slot;
};

// The work of one conversion. Source and destination must not overlap.
struct cdbgp_newline_conversion {
    char* destination;
    std::uint32_t destination_size;
    const char* source;
    std::uint32_t source_length;  // with the terminator
    std::uint32_t mode;           // a cdbgp_newline_mode
};

extern "C" {

// For each newline mode the bits of the destinations that want it. Written by cdbgp_channel_init alone.
extern std::uint32_t cdbgp_newline_masks[CDBGP_NEWLINE_MODE_COUNT];

// Start-up, by one thread and before any other uses the channels. Opens the destinations that all channels
// share. Always succeeds: what could not be opened is reported on the emergency channel and left out.
cdbgp_result cdbgp_channel_init(cdbgp_destination_set* shared);

// Undoes cdbgp_channel_init, when all channels are closed.
void cdbgp_channel_term(cdbgp_destination_set* shared);

// Start-up, by one thread. Opens the channel of an index, which must be below CDBGP_CHANNEL_COUNT. Gives
// CDBGP_FAILURE, with nothing left behind, when its ring or its conversion buffer can't be made. A
// destination that can't be opened is reported and left out.
cdbgp_result cdbgp_channel_open(cdbgp_destination_set* shared, cdbgp_channel* channel, std::uint32_t index);

// Undoes cdbgp_channel_open. No thread holds a slot of the channel, and none uses it any more.
void cdbgp_channel_close(cdbgp_channel* channel);

// Takes a slot, for the calling thread alone, and returns its text area of `size_out` bytes. Never fails, and
// waits only while all slots are in the hands of other writers. Any thread may call it.
char* cdbgp_channel_lock(cdbgp_channel_handle* handle, std::uint32_t* size_out, cdbgp_channel* channel);

// Sends the slot's text and gives the slot back, whatever happens. `total` is the text's length, or negative
// after a formatting error. CDBGP_FAILURE when a write failed. The slot's holder calls it, once.
cdbgp_result cdbgp_channel_unlock(cdbgp_channel_handle* handle, std::int32_t total);

// Open and close the destinations of a set. No failure stops those that come later; `active` tells what
// opened. By one thread, while no other uses the set.
void init_destinations(cdbgp_destination_set* set);
void term_destinations(cdbgp_destination_set* set);

// Sends a text to the open destinations in `mask`. `size` counts the terminator, which only the platform log
// sees. All of them get the text; the result is that of the first that failed, CDBGP_FAILURE. Any thread may
// call it.
cdbgp_result write_to_channels(cdbgp_destination_set* set, std::uint32_t mask, const char* text,
                               std::uint32_t size);

// Copies a text, giving it the line ends of a newline mode and one at its end. Returns the size of the result
// with its terminator, or 0 for an unknown mode. The result fits the destination: its end is lost where there
// is no room for it, and 1 comes back where there is room for nothing.
std::uint32_t cdbgp_channel_convert_newlines(const cdbgp_newline_conversion* work);

// Makes a text of `length` bytes in a buffer of `size` end in a newline, if need be in place of its last
// byte.
void cdbgp_ensure_message_ends_in_newline(char* text, std::uint32_t size, std::uint32_t* length);

// The conversion buffer of a channel, and the lock that gives it to one thread at a time. With size 0 there
// is neither. CDBGP_FAILURE leaves nothing behind.
cdbgp_result cdbgp_alloc_newline_conversion_buffer(cdbgp_channel* channel, std::uint32_t size);
void cdbgp_free_newline_conversion_buffer(cdbgp_channel* channel);
char* cdbgp_lock_newline_conversion_buffer(cdbgp_channel* channel);
void cdbgp_unlock_newline_conversion_buffer(cdbgp_channel* channel);

// A ring that nobody reads. A writer that finds no free slot throws the oldest message away, so that its lock
// never fails; it spins while there is none to throw away either. For the rest see cutils_ring_buffer.
cdbgp_result cdbgp_emptying_ringbuf_init(cutils_ring_buffer* ring, std::uint32_t entry_size,
                                         std::uint32_t order);
void cdbgp_emptying_ringbuf_term(cutils_ring_buffer* ring);
cutils_ring_buffer_slot* cdbgp_emptying_ringbuf_write_lock(cutils_ring_buffer* ring);
void cdbgp_emptying_ringbuf_write_unlock(cutils_ring_buffer* ring, cutils_ring_buffer_slot* slot);

// The platform log. Each channel has a destination of its own, for its priority. Opening and writing always
// succeed: a message that the log is too busy to take is lost without a word. A write ignores `size` and
// takes the text up to its terminator. Any thread may write.
cdbgp_result cdbgp_channel_platform_destination_open(cdbgp_destination* destination,
                                                     std::uint32_t channel_index);
void cdbgp_channel_platform_destination_close(cdbgp_destination* destination);
cdbgp_result cdbgp_channel_platform_destination_write(cdbgp_destination* destination, const char* text,
                                                      std::uint32_t size);

// Writes a text to the platform log with no channel, lock or memory: it works before anything else is up. Any
// thread may call it.
void cdbgp_channel_emergency_message(const char* text, std::uint32_t size);

}  // extern "C"
