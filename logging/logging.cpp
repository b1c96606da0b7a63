#include "logging/logging.h"

#include <android/log.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <shared_mutex>
#include <utility>

#include "logging/callback.h"
#include "stx/load_order.h"

namespace qel::vexa::logging {

namespace {

constexpr std::size_t message_size = 1024;  // with the terminator

}  // namespace

namespace detail {

[[gnu::init_priority(VEXA_LOAD_ORDER_LOGGING)]] callback_state current_callback{.lock = {},
                                                                                .receiver = backend::write};

}  // namespace detail

void vprintf(const stx::source_location& location, priority level, tag sender, const char* format,
             std::va_list arguments) {
    char text[message_size] = {};
    if (std::vsnprintf(text, sizeof text, format, arguments) < 0) {
        std::strcpy(text, "failed to format");
    }
    const std::shared_lock held(detail::current_callback.lock, std::try_to_lock);
    if (!held.owns_lock()) {
        return;
    }
    if (!detail::current_callback.receiver) {
        std::abort();
    }
    detail::current_callback.receiver(location, level, sender, std::string_view(text, std::strlen(text)));
}

callback exchange_callback(callback replacement) {
    const std::unique_lock held(detail::current_callback.lock);
    return std::exchange(detail::current_callback.receiver, std::move(replacement));
}

namespace backend {

void write(const stx::source_location& location, priority level, tag sender, std::string_view text) {
    char line[message_size] = {};
    const int length =
        std::snprintf(line, sizeof line, "%s:%d:%d:%s: %s\n", location.file, static_cast<int>(location.line),
                      static_cast<int>(location.column), location.function, text.data());
    // The platform's log gets the bare message, deliberately. The line with the call site goes out only when
    // it could not be formatted, as far as it got.
    __android_log_write(static_cast<int>(level), sender.text, length >= 0 ? text.data() : line);
}

}  // namespace backend

namespace print {

void logger::e(detail::annotated<const char*> format, ...) const {
    std::va_list arguments;
    va_start(arguments, format);
    vprintf(format.location, priority::error, sender_, format.value, arguments);
    va_end(arguments);
}

void logger::w(detail::annotated<const char*> format, ...) const {
    std::va_list arguments;
    va_start(arguments, format);
    vprintf(format.location, priority::warning, sender_, format.value, arguments);
    va_end(arguments);
}

void log::e(detail::annotated<tag> sender, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    vprintf(sender.location, priority::error, sender.value, format, arguments);
    va_end(arguments);
}

}  // namespace print
}  // namespace qel::vexa::logging
