// How the layers below diagnostics report what ends the process.
#pragma once

#include <cstdint>

// The channel of fatal reports, and the feature word that they carry.
inline constexpr std::uint32_t CDBGP_CHANNEL_ERROR = 2;
inline constexpr const char* CDBGP_FEATURE_ERROR = "ERROR";

// The numbers of the modules that report.
enum cdbgp_module : std::uint32_t { CDBGP_MODULE_CDBG = 3, CDBGP_MODULE_CUTILS = 14, CDBGP_MODULE_OSU = 20 };

// The place of a report, a constant text: "In file: osu/platform_dummy/vexa_osu  line: 12".
#define CDBGP_LOCATION_TEXT(line) "In file: " __FILE__ "  line: " #line
#define CDBGP_LOCATION_AT(line) CDBGP_LOCATION_TEXT(line)
#define CDBGP_LOCATION CDBGP_LOCATION_AT(__LINE__)

extern "C" {

// Prints one message, formatted by the system's own formatter, under a header line that names feature,
// module, location and function. Any thread may call it. A message that can't be printed is dropped.
void cdbgp_print_to_important_channel(std::uint32_t channel, const char* feature, const char* module,
                                      const char* location, const char* function, const char* format, ...);

// The word that stands for a module in a header line.
const char* cdbgp_module_to_str(std::uint32_t module);

// Ends the process at once.
[[noreturn]] void cdbgp_quit();

}  // extern "C"
