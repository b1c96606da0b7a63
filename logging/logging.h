// The tracing producer's log: short printf-style messages, each with a priority, a tag and its call site.
//
// Any thread may log. Logging neither waits nor allocates, gives no result and adds no newline: the format
// carries its own, or goes without.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <functional>
#include <string_view>

#include "stx/source_location.h"

namespace qel::vexa::logging {

// The values of the platform's log.
enum class priority : std::uint8_t { warning = 5, error = 6 };

// The sender of a message. It does not own its text, which is a terminated constant.
struct tag {
    const char* text;
    std::uint32_t length;

    constexpr tag(std::string_view constant)  // NOLINT(google-explicit-constructor): a tag is its text
        : text(constant.data()), length(static_cast<std::uint32_t>(constant.size())) {}
};

namespace detail {

// A value together with the place of the call that it is an argument of, which a default argument fills in.
template <typename T>
struct annotated {
    T value;
    const stx::source_location& location;  // lives as long as the call

    // Implicit, so that callers write the value alone.
    annotated(T the_value,  // NOLINT(google-explicit-constructor)
              const stx::source_location& the_location = stx::source_location::current())
        : value(the_value), location(the_location) {}
};

}  // namespace detail

// Formats a message into at most 1023 characters and gives it to the callback. A format error logs "failed to
// format" in the message's place. The message is dropped when the callback is being replaced at that moment.
void vprintf(const stx::source_location& location, priority level, tag sender, const char* format,
             std::va_list arguments) __attribute__((format(printf, 4, 0)));

// What receives every message. The text is terminated behind its end. Calls can overlap on several threads,
// and the callback must not replace itself.
using callback = std::function<void(const stx::source_location& location, priority level, tag sender,
                                    std::string_view text)>;

// Replaces the callback and returns the one before. Waits until no message is in the callback's hands. An
// empty callback ends the process at the next message.
callback exchange_callback(callback replacement);

namespace backend {

// The default callback: writes to the platform's log.
void write(const stx::source_location& location, priority level, tag sender, std::string_view text);

}  // namespace backend

namespace print {

// Logs with one tag.
class logger {
public:
    constexpr explicit logger(tag sender) : sender_(sender) {}

    // Each takes a printf format and its arguments.
    void e(detail::annotated<const char*> format, ...) const;  // error
    void w(detail::annotated<const char*> format, ...) const;  // warning

private:
    tag sender_;
};

// Logs without a logger.
struct log {
    static void e(detail::annotated<tag> sender, const char* format, ...)
        __attribute__((format(printf, 2, 3)));
};

}  // namespace print
}  // namespace qel::vexa::logging
