// Channels and their destinations. All that can vary stands in the tables at the top; no setting changes it.
#include "cdbg/src/vexa_cdbg_channels.h"

#include <android/log.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "cdbg/src/vexa_cdbg_print.h"
#include "stdlib/vexa_stdlib.h"

namespace {

// A destination's flags. The low two bits are its newline mode.
enum cdbgp_destination_flag : std::uint32_t {
    CDBGP_DEST_NEWLINE_LF = CDBGP_NEWLINE_LF,
    CDBGP_DEST_NEWLINE_MASK = 3,
    CDBGP_DEST_HAS_MUTEX = 4,
    CDBGP_DEST_SHARED = 8,  // by all channels; every write holds the mutex
};

// Indexed by cdbgp_destination_index. The file's mutex is held by no write, deliberately.
constexpr std::uint32_t cdbgp_destination_flags[CDBGP_DEST_COUNT] = {
    CDBGP_DEST_NEWLINE_LF | CDBGP_DEST_HAS_MUTEX | CDBGP_DEST_SHARED,
    CDBGP_DEST_NEWLINE_LF | CDBGP_DEST_HAS_MUTEX | CDBGP_DEST_SHARED,
    CDBGP_DEST_NEWLINE_LF | CDBGP_DEST_HAS_MUTEX,
    CDBGP_DEST_NEWLINE_LF,
};

// Room for a text whose line ends grow: a tenth more.
constexpr std::uint32_t conversion_size_of(std::uint32_t entry_size) {
    return entry_size * 11 / 10;
}

constexpr std::uint32_t MESSAGE_SIZE = 512;
constexpr std::uint32_t VERBOSE_MESSAGE_SIZE = 2048;

struct cdbgp_channel_row {
    std::uint32_t ring_order;
    std::uint32_t entry_size;
    std::uint32_t conversion_size;
    std::uint32_t destinations;
    const char* file_name;
};

constexpr cdbgp_channel_row cdbgp_channel_table[CDBGP_CHANNEL_COUNT] = {
    {4, MESSAGE_SIZE, 0, CDBGP_DEST_STDOUT | CDBGP_DEST_PLATFORM, nullptr},
    {4, MESSAGE_SIZE, 0, CDBGP_DEST_STDERR | CDBGP_DEST_PLATFORM, nullptr},
    {4, MESSAGE_SIZE, 0, CDBGP_DEST_STDERR | CDBGP_DEST_PLATFORM, nullptr},
    {0, VERBOSE_MESSAGE_SIZE, conversion_size_of(VERBOSE_MESSAGE_SIZE),
     CDBGP_DEST_STDOUT | CDBGP_DEST_PLATFORM, nullptr},
};

constexpr android_LogPriority cdbgp_channel_priorities[CDBGP_CHANNEL_COUNT] = {
    ANDROID_LOG_INFO, ANDROID_LOG_WARN, ANDROID_LOG_ERROR, ANDROID_LOG_VERBOSE};

constexpr const char* PLATFORM_TAG = "vexa";
constexpr int PLATFORM_BUSY = -EAGAIN;
constexpr std::uint32_t PLATFORM_ATTEMPTS = 16;

// Set when a set first opens them. Start-up alone does that, on one thread at a time.
constinit std::FILE* stdout_stream = nullptr;
constinit std::FILE* stderr_stream = nullptr;

bool has_flag(std::uint32_t index, cdbgp_destination_flag flag) {
    return (cdbgp_destination_flags[index] & flag) != 0;
}

// Whether the destination has the mutex that it should have.
bool init_lock(cdbgp_destination_set* set, std::uint32_t index) {
    return !has_flag(index, CDBGP_DEST_HAS_MUTEX) ||
           pthread_mutex_init(&set->destinations[index].lock, nullptr) == 0;
}

void open_platform(cdbgp_destination_set* set) {
    cdbgp_destination* const destination = &set->destinations[CDBGP_DEST_PLATFORM_INDEX];
    if (cdbgp_channel_platform_destination_open(destination, set->channel_index) != CDBGP_SUCCESS) {
        return;
    }
    if (init_lock(set, CDBGP_DEST_PLATFORM_INDEX)) {
        set->active |= CDBGP_DEST_PLATFORM;
    } else {
        cdbgp_channel_platform_destination_close(destination);
    }
}

void open_file(cdbgp_destination_set* set) {
    cdbgp_destination* const destination = &set->destinations[CDBGP_DEST_FILE_INDEX];
    destination->stream = &destination->own_stream;
    if (stdlibp_fopen(destination->stream, STDLIB_LOCATION_STORAGE_OUTPUT, set->file_name,
                      STDLIB_MODE_WRITE) != STDLIB_SUCCESS) {
        return;
    }
    if (init_lock(set, CDBGP_DEST_FILE_INDEX)) {
        set->active |= CDBGP_DEST_FILE;
    } else {
        std::fclose(destination->own_stream);
    }
}

// The streams of the process are there already, and stay open when the set is closed.
void open_process_stream(cdbgp_destination_set* set, std::uint32_t index, std::FILE** stream,
                         std::FILE* library_stream) {
    if (*stream == nullptr) {
        *stream = library_stream;
    }
    set->destinations[index].stream = stream;
    if (init_lock(set, index)) {
        set->active |= 1U << index;
    } else {
        std::fflush(*stream);
    }
}

void close_destination(cdbgp_destination_set* set, std::uint32_t index) {
    cdbgp_destination* const destination = &set->destinations[index];
    if (has_flag(index, CDBGP_DEST_HAS_MUTEX)) {
        pthread_mutex_destroy(&destination->lock);
    }
    switch (index) {
        case CDBGP_DEST_PLATFORM_INDEX:
            cdbgp_channel_platform_destination_close(destination);
            break;
        case CDBGP_DEST_FILE_INDEX:
            std::fclose(*destination->stream);
            break;
        default:
            std::fflush(*destination->stream);
            break;
    }
}

cdbgp_result write_to_stream(std::FILE* stream, const char* text, std::uint32_t length) {
    // Both, whatever becomes of the first: what did get into the stream's buffer is to go out.
    const bool written = std::fwrite(text, 1, length, stream) == length;
    const bool flushed = std::fflush(stream) == 0;
    return written && flushed ? CDBGP_SUCCESS : CDBGP_FAILURE;
}

cdbgp_result write_to_destination(cdbgp_destination_set* set, std::uint32_t index, const char* text,
                                  std::uint32_t size) {
    cdbgp_destination* const destination = &set->destinations[index];
    const bool locked = has_flag(index, CDBGP_DEST_SHARED);
    if (locked) {
        pthread_mutex_lock(&destination->lock);
    }
    const cdbgp_result result = index == CDBGP_DEST_PLATFORM_INDEX
                                    ? cdbgp_channel_platform_destination_write(destination, text, size)
                                    : write_to_stream(*destination->stream, text, size - 1);
    if (locked) {
        pthread_mutex_unlock(&destination->lock);
    }
    return result;
}

// Calls an operation for each destination in `mask`, in the order of opening, writing and closing.
template <typename Operation>
void for_each_destination(std::uint32_t mask, Operation operation) {
    for (mask %= 1U << CDBGP_DEST_COUNT; mask != 0;) {
        const auto index = static_cast<std::uint32_t>(std::bit_width(mask)) - 1;
        mask ^= 1U << index;
        operation(index);
    }
}

// Sends a text to the destinations that want this newline mode: the shared ones and the channel's own.
cdbgp_result write_in_mode(cdbgp_channel* channel, cdbgp_newline_mode mode, const char* text,
                           std::uint32_t size) {
    if (size == 0) {
        return CDBGP_FAILURE;
    }
    const std::uint32_t mask = cdbgp_newline_masks[mode];
    const cdbgp_result shared = write_to_channels(channel->shared, channel->shared_active & mask, text, size);
    const cdbgp_result own = write_to_channels(&channel->private_destinations,
                                               channel->private_destinations.active & mask, text, size);
    return shared != CDBGP_SUCCESS ? shared : own;
}

cdbgp_result convert_and_write(cdbgp_channel* channel, char* buffer, std::uint32_t buffer_size,
                               const char* text, std::uint32_t size) {
    const cdbgp_newline_conversion work = {buffer, buffer_size, text, size, CDBGP_NEWLINE_CRLF};
    return write_in_mode(channel, CDBGP_NEWLINE_CRLF, buffer, cdbgp_channel_convert_newlines(&work));
}

// Apart, so that the array is on the stack only where it is wanted.
[[gnu::noinline]] cdbgp_result convert_on_stack_and_write(cdbgp_channel* channel, const char* text,
                                                          std::uint32_t size) {
    char buffer[conversion_size_of(MESSAGE_SIZE)] = {};
    return convert_and_write(channel, buffer, sizeof buffer, text, size);
}

// One newline mode's part of sending a message.
cdbgp_result send_pass(cdbgp_channel* channel, cdbgp_newline_mode mode, const char* text,
                       std::uint32_t size) {
    const std::uint32_t active = channel->shared_active | channel->private_destinations.active;
    if ((active & cdbgp_newline_masks[mode]) == 0) {
        return CDBGP_SUCCESS;
    }
    const bool as_it_stands = mode == CDBGP_NEWLINE_LF;
    if (channel->conversion_size == 0) {
        return as_it_stands ? write_in_mode(channel, mode, text, size)
                            : convert_on_stack_and_write(channel, text, size);
    }
    // The lock is held through the pass, deliberately also where the buffer isn't used.
    char* const buffer = cdbgp_lock_newline_conversion_buffer(channel);
    const cdbgp_result result =
        as_it_stands ? write_in_mode(channel, mode, text, size)
                     : convert_and_write(channel, buffer, channel->conversion_size, text, size);
    cdbgp_unlock_newline_conversion_buffer(channel);
    return result;
}

// The result of a conversion of which nothing but a line end is left.
std::uint32_t convert_empty(const cdbgp_newline_conversion* work, const char* line_end) {
    const auto size = static_cast<std::uint32_t>(std::strlen(line_end)) + 1;
    if (work->destination_size < size) {
        if (work->destination_size != 0) {
            work->destination[0] = '\0';
        }
        return 1;
    }
    std::memcpy(work->destination, line_end, size);
    return size;
}

std::uint32_t convert_to_lf(const cdbgp_newline_conversion* work) {
    char* const text = work->destination;
    const std::uint32_t written = std::min(work->destination_size, work->source_length);
    // With nothing but a terminator there is no text either.
    if (written <= 1) {
        return convert_empty(work, "\n");
    }
    std::memcpy(text, work->source, written);
    std::uint32_t length = written - 1;
    text[length] = '\0';
    cdbgp_ensure_message_ends_in_newline(text, work->destination_size, &length);
    return length + 1;
}

std::uint32_t convert_to_crlf(const cdbgp_newline_conversion* work) {
    char* const text = work->destination;
    const std::uint32_t room = work->destination_size;
    std::uint32_t written = 0;
    for (std::uint32_t i = 0; i < work->source_length && written < room; ++i) {
        if (work->source[i] == '\n') {
            text[written++] = '\r';
            if (written == room) {
                break;
            }
        }
        text[written++] = work->source[i];
    }
    if (written == 0) {
        return convert_empty(work, "\r\n");
    }
    const std::uint32_t length = written - 1;
    text[length] = '\0';
    if (length >= 2 && text[length - 2] == '\r' && text[length - 1] == '\n') {
        return written;
    }
    if (room >= 2 && length < room - 2) {
        std::memcpy(text + length, "\r\n", 3);
        return written + 2;
    }
    if (length >= 2) {
        std::memcpy(text + length - 2, "\r\n", 2);
    }
    return written;
}

}  // namespace

constinit std::uint32_t cdbgp_newline_masks[CDBGP_NEWLINE_MODE_COUNT] = {};

cdbgp_result cdbgp_channel_init(cdbgp_destination_set* shared) {
    std::fill(std::begin(cdbgp_newline_masks), std::end(cdbgp_newline_masks), 0);
    std::uint32_t shareable = 0;
    for (std::uint32_t index = 0; index < CDBGP_DEST_COUNT; ++index) {
        cdbgp_newline_masks[cdbgp_destination_flags[index] & CDBGP_DEST_NEWLINE_MASK] |= 1U << index;
        shareable |= has_flag(index, CDBGP_DEST_SHARED) ? 1U << index : 0;
    }
    shared->requested = 0;
    // Downwards, so that the first channel that has a destination names its file or its priority.
    for (std::uint32_t index = CDBGP_CHANNEL_COUNT; index > 0;) {
        const cdbgp_channel_row& row = cdbgp_channel_table[--index];
        shared->requested |= row.destinations & shareable;
        if ((row.destinations & CDBGP_DEST_FILE) != 0) {
            shared->file_name = row.file_name;
        }
        if ((row.destinations & CDBGP_DEST_PLATFORM) != 0) {
            shared->channel_index = index;
        }
    }
    init_destinations(shared);
    if (shared->active != shared->requested) {
        CDBGP_REPORT_INIT(
            "Initing shared dests 0x%x: failed to init 0x%x. Some debug output may not appear due to this",
            shared->requested, shared->requested & ~shared->active);
    }
    return CDBGP_SUCCESS;
}

void cdbgp_channel_term(cdbgp_destination_set* shared) {
    term_destinations(shared);
}

cdbgp_result cdbgp_channel_open(cdbgp_destination_set* shared, cdbgp_channel* channel, std::uint32_t index) {
    const cdbgp_channel_row& row = cdbgp_channel_table[index];
    cdbgp_destination_set* const own = &channel->private_destinations;
    channel->conversion_size = 0;
    own->requested = row.destinations & ~shared->requested;
    own->file_name = row.file_name;
    own->channel_index = index;
    init_destinations(own);
    if (own->active != own->requested) {
        CDBGP_REPORT_INIT(
            "Initing dest bitpattern 0x%x for channel %d: failed dests bitpattern is 0x%x. Some debug output "
            "may not appear from this channel.",
            own->requested, index, own->requested & ~own->active);
    }
    channel->shared = shared;
    channel->shared_active = shared->active & row.destinations;
    if (cdbgp_emptying_ringbuf_init(&channel->ring, row.entry_size, row.ring_order) == CDBGP_SUCCESS) {
        channel->entry_size = row.entry_size;
        if (cdbgp_alloc_newline_conversion_buffer(channel, row.conversion_size) == CDBGP_SUCCESS) {
            return CDBGP_SUCCESS;
        }
        cdbgp_emptying_ringbuf_term(&channel->ring);
    }
    term_destinations(own);
    return CDBGP_FAILURE;
}

void cdbgp_channel_close(cdbgp_channel* channel) {
    cdbgp_free_newline_conversion_buffer(channel);
    cdbgp_emptying_ringbuf_term(&channel->ring);
    term_destinations(&channel->private_destinations);
}

char* cdbgp_channel_lock(cdbgp_channel_handle* handle, std::uint32_t* size_out, cdbgp_channel* channel) {
    handle->channel = channel;
    handle->slot = cdbgp_emptying_ringbuf_write_lock(&channel->ring);
    *size_out = channel->entry_size;
    return static_cast<char*>(handle->slot->data);
}

cdbgp_result cdbgp_channel_unlock(cdbgp_channel_handle* handle, std::int32_t total) {
    cdbgp_channel* const channel = handle->channel;
    char* const text = static_cast<char*>(handle->slot->data);
    cdbgp_correct_snprintf_for_error(text, channel->entry_size, &total);
    auto length = static_cast<std::uint32_t>(total);
    cdbgp_ensure_message_ends_in_newline(text, channel->entry_size, &length);
    const cdbgp_result plain = send_pass(channel, CDBGP_NEWLINE_LF, text, length + 1);
    // No destination of today wants this mode.
    const cdbgp_result converted = send_pass(channel, CDBGP_NEWLINE_CRLF, text, length + 1);
    cdbgp_emptying_ringbuf_write_unlock(&channel->ring, handle->slot);
    return plain != CDBGP_SUCCESS ? plain : converted;
}

void init_destinations(cdbgp_destination_set* set) {
    set->active = 0;
    for_each_destination(set->requested, [set](std::uint32_t index) {
        switch (index) {
            case CDBGP_DEST_PLATFORM_INDEX:
                open_platform(set);
                break;
            case CDBGP_DEST_FILE_INDEX:
                open_file(set);
                break;
            case CDBGP_DEST_STDERR_INDEX:
                open_process_stream(set, index, &stderr_stream, stderr);
                break;
            default:
                open_process_stream(set, index, &stdout_stream, stdout);
                break;
        }
    });
}

void term_destinations(cdbgp_destination_set* set) {
    for_each_destination(set->active, [set](std::uint32_t index) { close_destination(set, index); });
    set->requested = 0;
    set->active = 0;
}

cdbgp_result write_to_channels(cdbgp_destination_set* set, std::uint32_t mask, const char* text,
                               std::uint32_t size) {
    cdbgp_result first_failure = CDBGP_SUCCESS;
    for_each_destination(mask, [&](std::uint32_t index) {
        const cdbgp_result result = write_to_destination(set, index, text, size);
        if (first_failure == CDBGP_SUCCESS) {
            first_failure = result;
        }
    });
    return first_failure;
}

std::uint32_t cdbgp_channel_convert_newlines(const cdbgp_newline_conversion* work) {
    switch (work->mode) {
        case CDBGP_NEWLINE_LF:
            return convert_to_lf(work);
        case CDBGP_NEWLINE_CRLF:
            return convert_to_crlf(work);
        default:
            return 0;
    }
}

void cdbgp_ensure_message_ends_in_newline(char* text, std::uint32_t size, std::uint32_t* length) {
    if (*length == 0) {
        if (size >= 2) {
            std::memcpy(text, "\n", 2);
            *length = 1;
        }
    } else if (*length > size || text[*length - 1] == '\n') {
        // A length that the buffer can't have leaves no byte to look at.
    } else if (*length < size - 1) {
        std::memcpy(text + *length, "\n", 2);
        ++*length;
    } else {
        text[*length - 1] = '\n';
    }
}

cdbgp_result cdbgp_alloc_newline_conversion_buffer(cdbgp_channel* channel, std::uint32_t size) {
    channel->conversion_size = 0;
    if (size == 0) {
        return CDBGP_SUCCESS;
    }
    channel->conversion_buffer = static_cast<char*>(std::malloc(size));
    if (channel->conversion_buffer == nullptr) {
        return CDBGP_FAILURE;
    }
    if (pthread_mutex_init(&channel->conversion_lock, nullptr) != 0) {
        std::free(channel->conversion_buffer);
        channel->conversion_buffer = nullptr;
        return CDBGP_FAILURE;
    }
    channel->conversion_size = size;
    return CDBGP_SUCCESS;
}

void cdbgp_free_newline_conversion_buffer(cdbgp_channel* channel) {
    if (channel->conversion_size != 0) {
        pthread_mutex_destroy(&channel->conversion_lock);
        std::free(channel->conversion_buffer);
        channel->conversion_buffer = nullptr;
        channel->conversion_size = 0;
    }
}

char* cdbgp_lock_newline_conversion_buffer(cdbgp_channel* channel) {
    pthread_mutex_lock(&channel->conversion_lock);
    return channel->conversion_buffer;
}

void cdbgp_unlock_newline_conversion_buffer(cdbgp_channel* channel) {
    pthread_mutex_unlock(&channel->conversion_lock);
}

cdbgp_result cdbgp_emptying_ringbuf_init(cutils_ring_buffer* ring, std::uint32_t entry_size,
                                         std::uint32_t order) {
    return cdbgp_result_of(cutils_ring_buffer_init(ring, entry_size, order));
}

void cdbgp_emptying_ringbuf_term(cutils_ring_buffer* ring) {
    cutils_ring_buffer_term(ring);
}

cutils_ring_buffer_slot* cdbgp_emptying_ringbuf_write_lock(cutils_ring_buffer* ring) {
    for (;;) {
        if (cutils_ring_buffer_slot* slot = cutils_ring_buffer_write_lock(ring); slot != nullptr) {
            return slot;
        }
        if (cutils_ring_buffer_slot* oldest = cutils_ring_buffer_read_lock(ring); oldest != nullptr) {
            cutils_ring_buffer_read_unlock(ring, oldest);
        } else {
            // The writers that hold all slots may be waiting for this processor.
            sched_yield();
        }
    }
}

void cdbgp_emptying_ringbuf_write_unlock(cutils_ring_buffer* ring, cutils_ring_buffer_slot* slot) {
    cutils_ring_buffer_write_unlock(ring, slot);
}

cdbgp_result cdbgp_channel_platform_destination_open(cdbgp_destination* destination,
                                                     std::uint32_t channel_index) {
    destination->priority = cdbgp_channel_priorities[channel_index];
    return CDBGP_SUCCESS;
}

void cdbgp_channel_platform_destination_close([[maybe_unused]] cdbgp_destination* destination) {}

cdbgp_result cdbgp_channel_platform_destination_write(cdbgp_destination* destination, const char* text,
                                                      [[maybe_unused]] std::uint32_t size) {
    for (std::uint32_t attempt = 0; attempt < PLATFORM_ATTEMPTS; ++attempt) {
        if (__android_log_write(destination->priority, PLATFORM_TAG, text) != PLATFORM_BUSY) {
            break;
        }
        // In microseconds, and after the last attempt too.
        usleep(1U << attempt);
    }
    return CDBGP_SUCCESS;
}

void cdbgp_channel_emergency_message(const char* text, [[maybe_unused]] std::uint32_t size) {
    __android_log_write(ANDROID_LOG_ERROR, PLATFORM_TAG, text);
}
