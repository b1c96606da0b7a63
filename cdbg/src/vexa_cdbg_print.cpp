// Messages, from a format to a channel or to the platform log.
#include "cdbg/src/vexa_cdbg_print.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <limits>
#include <string_view>

#include "cdbg/print.h"
#include "cdbg/src/vexa_cdbg_failure.h"
#include "cutils/cstr/vexa_cutils_cstr.h"
#include "osu/vexa_osu.h"

namespace {

constexpr std::uint32_t EMERGENCY_MESSAGE_SIZE = 1024;

// Their terminators count when room is made for them.
constexpr std::string_view FORMATTING_ERROR_MARKER = "\n***FORMATTING ERROR***\n";
constexpr std::string_view TRUNCATED_MARKER = "\n***MESSAGE TRUNCATED***\n";

constexpr std::uint32_t size_of(std::string_view marker) {
    return static_cast<std::uint32_t>(marker.size()) + 1;
}

// Starts a message in a slot of a channel.
void open_message(cdbgp_message* message, std::uint32_t channel) {
    std::uint32_t size = 0;
    char* text = cdbgp_channel_lock(&message->handle, &size, &cdbgp_channels[channel]);
    cdbgp_buffer_init(&message->buffer, text, size);
}

// Nobody could do anything about a write that failed.
void send_message(cdbgp_message* message) {
    cdbgp_buffer_finish(&message->buffer);
    cdbgp_channel_unlock(&message->handle, message->buffer.total);
}

void write_report(cdbgp_message* message, const char* feature, const char* module, const char* location,
                  const char* function, const char* format, va_list args) {
    char thread[OSUP_THREAD_NAME_SIZE] = {};
    osup_thread_getname(thread, sizeof thread);
    cdbgp_message_printf(message, "==>[%s] (%s) %s: %s %s\n", feature, thread, module, location, function);
    cdbgp_buffer_vprintf(&message->buffer, format, args);
    cdbgp_message_printf(message, "\n");
}

}  // namespace

constinit cdbgp_destination_set cdbgp_channel_shared = {};
constinit cdbgp_channel cdbgp_channels[CDBGP_CHANNEL_COUNT] = {};

namespace {

// Closes the first `count` channels, the last of them first, and what they share.
void close_channels(std::uint32_t count) {
    while (count > 0) {
        cdbgp_channel_close(&cdbgp_channels[--count]);
    }
    cdbgp_channel_term(&cdbgp_channel_shared);
}

}  // namespace

cdbgp_result cdbgp_print_init() {
    if (const cdbgp_result result = cdbgp_channel_init(&cdbgp_channel_shared); result != CDBGP_SUCCESS) {
        CDBGP_REPORT_INIT("Initialization of CDBG channels failed (%d)", result);
        return result;
    }
    for (std::uint32_t i = 0; i < CDBGP_CHANNEL_COUNT; ++i) {
        const cdbgp_result result = cdbgp_channel_open(&cdbgp_channel_shared, &cdbgp_channels[i], i);
        if (result != CDBGP_SUCCESS) {
            CDBGP_REPORT_INIT("Initialization of CDBG channel %d failed (%d)", i, result);
            close_channels(i);
            return result;
        }
    }
    return CDBGP_SUCCESS;
}

void cdbgp_print_term() {
    close_channels(CDBGP_CHANNEL_COUNT);
}

bool cdbgp_print_is_at_rest() {
    return std::all_of(std::begin(cdbgp_channels), std::end(cdbgp_channels),
                       [](cdbgp_channel& channel) { return cutils_ring_buffer_is_at_rest(&channel.ring); });
}

void cdbg_print_to_error_channel(const char* format, ...) {
    if (cdbgp_init() != CDBGP_SUCCESS) {
        return;
    }
    cdbgp_message message = {};
    open_message(&message, CDBGP_CHANNEL_ERROR);
    va_list args;
    va_start(args, format);
    cdbgp_buffer_vprintf(&message.buffer, format, args);
    va_end(args);
    send_message(&message);
}

void cdbgp_print_to_important_channel(std::uint32_t channel, const char* feature, const char* module,
                                      const char* location, const char* function, const char* format, ...) {
    if (channel >= CDBGP_CHANNEL_COUNT || cdbgp_init() != CDBGP_SUCCESS) {
        return;
    }
    cdbgp_message message = {};
    open_message(&message, channel);
    va_list args;
    va_start(args, format);
    write_report(&message, feature, module, location, function, format, args);
    va_end(args);
    send_message(&message);
}

void cdbgp_print_to_emergency_channel(const char* feature, const char* module, const char* location,
                                      const char* function, const char* format, ...) {
    char text[EMERGENCY_MESSAGE_SIZE] = {};
    cdbgp_message message = {};
    cdbgp_buffer_init(&message.buffer, text, sizeof text);
    va_list args;
    va_start(args, format);
    write_report(&message, feature, module, location, function, format, args);
    va_end(args);
    cdbgp_buffer_finish(&message.buffer);
    cdbgp_channel_emergency_message(text, static_cast<std::uint32_t>(message.buffer.total) + 1);
}

void cdbgp_message_printf(cdbgp_message* message, const char* format, ...) {
    va_list args;
    va_start(args, format);
    cdbgp_buffer_vprintf(&message->buffer, format, args);
    va_end(args);
}

void cdbgp_buffer_init(cdbgp_buffer* buffer, char* text, std::uint32_t size) {
    *buffer = {text, 0, size, 0};
    if (size != 0) {
        text[0] = '\0';
    }
}

void cdbgp_buffer_printf(cdbgp_buffer* buffer, const char* format, ...) {
    va_list args;
    va_start(args, format);
    cdbgp_buffer_vprintf(buffer, format, args);
    va_end(args);
}

void cdbgp_buffer_vprintf(cdbgp_buffer* buffer, const char* format, va_list args) {
    if (buffer->total < 0) {
        return;
    }
    const std::int32_t length =
        cutils_cstr_vsnprintf(buffer->text + buffer->offset, buffer->remaining, format, args);
    if (length < 0) {
        buffer->total = length;
        return;
    }
    // Up to the very end: the terminator's place is used up too, so that nothing more is appended to a text
    // that was cut.
    const std::uint32_t used = std::min(static_cast<std::uint32_t>(length), buffer->remaining);
    buffer->offset += used;
    buffer->remaining -= used;
    // A total of two gigabytes must not turn into an error.
    buffer->total += std::min(length, std::numeric_limits<std::int32_t>::max() - buffer->total);
}

void cdbgp_buffer_finish(cdbgp_buffer* buffer) {
    const std::uint32_t capacity = buffer->offset + buffer->remaining;
    std::string_view marker = FORMATTING_ERROR_MARKER;
    if (buffer->total >= 0) {
        if (static_cast<std::uint32_t>(buffer->total) < capacity) {
            return;
        }
        marker = TRUNCATED_MARKER;
    }
    if (const std::uint32_t needed = size_of(marker); buffer->remaining < needed) {
        buffer->remaining = std::min(capacity, needed);
        buffer->offset = capacity - buffer->remaining;
    }
    if (buffer->remaining != 0) {
        const std::size_t copied = marker.copy(buffer->text + buffer->offset, buffer->remaining - 1);
        buffer->offset += static_cast<std::uint32_t>(copied);
        buffer->remaining -= static_cast<std::uint32_t>(copied);
        buffer->text[buffer->offset] = '\0';
    }
    buffer->total = static_cast<std::int32_t>(buffer->offset);
}

void cdbgp_correct_snprintf_for_error(char* text, std::uint32_t size, std::int32_t* total) {
    if (*total < 0) {
        const std::uint32_t needed = size_of(FORMATTING_ERROR_MARKER);
        const std::uint32_t length = cutils_cstr_len(text, size);
        std::uint32_t place = 0;
        if (size >= needed) {
            place = std::min(length, size - needed);
        }
        if (size != 0) {
            std::memcpy(text + place, FORMATTING_ERROR_MARKER.data(), std::min(size, needed));
            text[size - 1] = '\0';
        }
        // The whole buffer counts as text, deliberately, whatever stands behind the marker.
        *total = static_cast<std::int32_t>(size) - 1;
    } else if (*total >= static_cast<std::int32_t>(size)) {
        const std::uint32_t needed = size_of(TRUNCATED_MARKER);
        // Deliberate: where the marker doesn't fit, the text is left without a terminator, unlike above.
        if (size != 0) {
            std::memcpy(text + (size >= needed ? size - needed : 0), TRUNCATED_MARKER.data(),
                        std::min(size, needed));
        }
        *total = static_cast<std::int32_t>(size) - 1;
    }
}
