// The formatter's output side: the sink, runs of characters that go to it, and the layout that all numbers
// share.
//
// The small operations are inline, for a message is made of many short runs.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>

// Flags of a conversion.
enum cutilsp_cstr_flag : std::uint32_t {
    CUTILSP_CSTR_FLAG_ALTERNATE = 1,  // "#"
    CUTILSP_CSTR_FLAG_ZERO = 2,       // "0"
    CUTILSP_CSTR_FLAG_LEFT = 4,       // "-"
    CUTILSP_CSTR_FLAG_BLANK = 8,      // " "
    CUTILSP_CSTR_FLAG_PLUS = 16,      // "+"
};

extern "C" {

// The formatter's output. It belongs to the caller, who sets count to 0.
struct cutilsp_cstr_sink {
    std::int32_t count;                                  // characters delivered so far
    std::int32_t (*put)(char character, void* context);  // takes one; a negative result stops formatting
    void* context;
};

// The context of output to memory.
struct cutilsp_cstr_buffer_sink {
    char* position;
    std::uint32_t remaining;
};

// The put operation of output to memory; context is a cutilsp_cstr_buffer_sink. It keeps the last byte for
// the terminator and drops what doesn't fit. Returns 0.
std::int32_t cutilsp_cstr_append(char character, void* context);

}  // extern "C"

// Raises the count. A format may ask for more characters than a signed 32-bit number holds: the count then
// stays at the highest one, so that it never reads as an error, and every count below is true.
inline void cutilsp_cstr_add_to_count(cutilsp_cstr_sink* sink, std::uint64_t characters) {
    constexpr std::uint64_t highest = std::numeric_limits<std::int32_t>::max();
    sink->count =
        static_cast<std::int32_t>(std::min(static_cast<std::uint32_t>(sink->count) + characters, highest));
}

// Delivers a run of characters, or one character so many times, through put. Return 0, or the negative result
// of the put that stopped them.
std::int32_t cutilsp_cstr_put_run(cutilsp_cstr_sink* sink, const char* text, std::size_t length);
std::int32_t cutilsp_cstr_put_repeatedly(cutilsp_cstr_sink* sink, char character, std::uint64_t times);

// Copies the first and the last bytes of a run, which may overlap: together all of it, if it has one to two
// blocks.
template <typename Block>
inline void cutilsp_cstr_copy_ends(char* to, const char* from, std::size_t length) {
    Block first;
    Block last;
    std::memcpy(&first, from, sizeof first);
    std::memcpy(&last, from + length - sizeof last, sizeof last);
    std::memcpy(to, &first, sizeof first);
    std::memcpy(to + length - sizeof last, &last, sizeof last);
}

// As memcpy, but without a call for short runs, as most are.
inline void cutilsp_cstr_copy(char* to, const char* from, std::size_t length) {
    if (length > 2 * sizeof(std::uint64_t)) {
        std::memcpy(to, from, length);
    } else if (length >= sizeof(std::uint64_t)) {
        cutilsp_cstr_copy_ends<std::uint64_t>(to, from, length);
    } else if (length >= sizeof(std::uint32_t)) {
        cutilsp_cstr_copy_ends<std::uint32_t>(to, from, length);
    } else if (length != 0) {
        to[0] = from[0];
        to[length / 2] = from[length / 2];
        to[length - 1] = from[length - 1];
    }
}

// Output to memory accepts everything, so a run can go there in one piece: store gets the place for as much
// of it as fits. The effect is that of putting each character.
template <typename Store>
inline std::int32_t cutilsp_cstr_store_run(cutilsp_cstr_sink* sink, std::uint64_t length, Store store) {
    auto* buffer = static_cast<cutilsp_cstr_buffer_sink*>(sink->context);
    const std::uint32_t room = buffer->remaining - (buffer->remaining != 0 ? 1 : 0);
    const auto stored = static_cast<std::uint32_t>(std::min<std::uint64_t>(length, room));
    if (stored != 0) {
        store(buffer->position, stored);
        buffer->position += stored;
        buffer->remaining -= stored;
    }
    cutilsp_cstr_add_to_count(sink, length);
    return 0;
}

// Delivers a run of characters. Results as cutilsp_cstr_put_run.
inline std::int32_t cutilsp_cstr_write(cutilsp_cstr_sink* sink, const char* text, std::size_t length) {
    if (length == 0) {
        return 0;
    }
    if (sink->put != cutilsp_cstr_append) {
        return cutilsp_cstr_put_run(sink, text, length);
    }
    return cutilsp_cstr_store_run(
        sink, length, [text](char* place, std::uint32_t stored) { cutilsp_cstr_copy(place, text, stored); });
}

// Delivers one character so many times. Results as cutilsp_cstr_put_run.
inline std::int32_t cutilsp_cstr_fill(cutilsp_cstr_sink* sink, char character, std::uint64_t times) {
    if (times == 0) {
        return 0;
    }
    if (sink->put != cutilsp_cstr_append) {
        return cutilsp_cstr_put_repeatedly(sink, character, times);
    }
    return cutilsp_cstr_store_run(sink, times, [character](char* place, std::uint32_t stored) {
        std::memset(place, character, stored);
    });
}

// Lays out a number: prefix, zeros up to the precision, digits and trailing zeros, padded to the width with
// blanks, or, if the flag asks for it, with zeros behind the prefix. Lengths, width and precision are in
// characters. Of the flags, CUTILSP_CSTR_FLAG_ZERO and CUTILSP_CSTR_FLAG_LEFT matter. Results as
// cutilsp_cstr_put_run.
extern "C" inline std::int32_t cutilsp_cstr_emit_number(cutilsp_cstr_sink* sink, std::uint32_t prefix_length,
                                                        const char* prefix, std::uint32_t digits_length,
                                                        const char* digits, std::uint32_t flags,
                                                        std::uint32_t width, std::uint32_t precision,
                                                        std::uint32_t trailing_zeros) {
    // In 64 bits, where no sum of such lengths overflows.
    const std::uint64_t fixed = std::uint64_t{digits_length} + prefix_length + trailing_zeros;
    std::uint64_t zeros = precision > digits_length ? precision - digits_length : 0;
    std::uint64_t padding = 0;
    if (fixed + zeros < width) {
        if ((flags & CUTILSP_CSTR_FLAG_ZERO) != 0) {
            zeros = width - fixed;
        } else {
            padding = width - (fixed + zeros);
        }
    }
    const bool left = (flags & CUTILSP_CSTR_FLAG_LEFT) != 0;

    std::int32_t result = left ? 0 : cutilsp_cstr_fill(sink, ' ', padding);
    result = result < 0 ? result : cutilsp_cstr_write(sink, prefix, prefix_length);
    result = result < 0 ? result : cutilsp_cstr_fill(sink, '0', zeros);
    result = result < 0 ? result : cutilsp_cstr_write(sink, digits, digits_length);
    result = result < 0 ? result : cutilsp_cstr_fill(sink, '0', trailing_zeros);
    return result < 0 || !left ? result : cutilsp_cstr_fill(sink, ' ', padding);
}
