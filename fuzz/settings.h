// What the fuzz targets of diagnostics' settings share: a store filled from an environment, compared with
// what should be in it.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "cdbg/src/vexa_cdbg_env.h"

namespace settings_fuzz {

// Reports on the emergency channel.
inline std::size_t report_count = 0;

inline void require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

inline std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts(1);
    for (const char character : text) {
        if (character == separator) {
            parts.emplace_back();
        } else {
            parts.back() += character;
        }
    }
    return parts;
}

inline std::string without_prefix(const std::string& name) {
    return name.starts_with("VEXA_") ? name.substr(5) : name;
}

// What a store filled from a process environment of these entries must hold, and how much it must report.
inline void check_store(std::vector<std::string> entries, const std::map<std::string, std::string>& expected,
                        std::size_t expected_reports) {
    std::vector<char*> environment;
    for (std::string& entry : entries) {
        environment.push_back(entry.data());
    }
    environment.push_back(nullptr);
    char** const previous = environ;
    environ = environment.data();
    report_count = 0;
    require(cdbgp_env_init() == CDBGP_SUCCESS);
    environ = previous;
    char value[CDBGP_ENV_TEXT_SIZE];
    for (const auto& [key, text] : expected) {
        const std::int32_t length = cdbgp_env_get(("VEXA_" + key).c_str(), value, sizeof value);
        require(length == static_cast<std::int32_t>(text.size()) && text == value);
    }
    cdbgp_env_term();
    require(report_count == expected_reports);
}

}  // namespace settings_fuzz

// In place of the platform's log.
extern "C" [[gnu::used, gnu::visibility("default")]] inline int __android_log_write(int /*priority*/,
                                                                                    const char* /*tag*/,
                                                                                    const char* /*text*/) {
    ++settings_fuzz::report_count;
    return 1;
}
