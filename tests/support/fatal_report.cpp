// A fatal report is one line on stderr, "fatal <channel> <feature> <module> <location> <function> <message>",
// for death tests to match. It is formatted by the C library, so that a fault of the system's formatter
// cannot hide itself.
#include "tests/support/fatal_report.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "cdbg/failure.h"

namespace {

std::mutex text_lock;
std::string error_text;

}  // namespace

std::string qel::vexa::tests::last_error_text() {
    const std::scoped_lock lock(text_lock);
    return error_text;
}

extern "C" {

void cdbgp_print_to_important_channel(std::uint32_t channel, const char* feature, const char* module,
                                      const char* location, const char* function, const char* format, ...) {
    char message[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(message, sizeof message, format, args);
    va_end(args);
    std::fprintf(stderr, "fatal %u %s %s %s %s %s\n", channel, feature, module, location, function, message);
}

void cdbg_print_to_error_channel(const char* format, ...) {
    char message[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(message, sizeof message, format, args);
    va_end(args);
    const std::scoped_lock lock(text_lock);
    error_text = message;
}

const char* cdbgp_module_to_str(std::uint32_t module) {
    switch (module) {
        case CDBGP_MODULE_CUTILS:
            return "CUTILS";
        case CDBGP_MODULE_OSU:
            return "OSU";
        default:
            return "?";
    }
}

void cdbgp_quit() {
    std::abort();
}

}  // extern "C"
