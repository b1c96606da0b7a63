// Permissions, filled from an input.
#include <algorithm>
#include <cstring>
#include <string_view>

#include "cdbg/src/vexa_cdbg_control.h"
#include "fuzz/settings.h"

namespace {

// What each element allows, or nothing from the first bad one on. Gives the number of reports.
std::size_t apply(const std::string& text, std::uint32_t* words) {
    using settings_fuzz::split;
    constexpr std::pair<std::string_view, std::uint32_t> features[] = {
        {"INFO", 1}, {"WARN", 2}, {"ERROR", 4}, {"FAIL", 8}, {"ALL", 7}};
    if (text.empty()) {
        return 0;
    }
    std::size_t consumed = 0;
    for (const std::string& part : split(text, ',')) {
        const std::string rest = text.substr(consumed);
        consumed += part.size() + 1;
        const std::string element = part.substr(std::min(part.find_first_not_of(' '), part.size()));
        const std::size_t underscore = element.find('_');
        if (underscore == std::string::npos) {
            return 1;
        }
        const std::string module = element.substr(0, underscore);
        std::string feature = element.substr(underscore + 1);
        const bool whole = module.find(' ') != std::string::npos;
        if (whole) {
            // The word has no end: all that follows belongs to it, and only a whole name will do.
            feature = rest.substr(rest.find('_') + 1);
        } else {
            feature = feature.substr(0, feature.find(' '));
        }
        std::uint32_t mask = 0;
        for (const auto& [name, bits] : features) {
            if (mask == 0 && (whole ? name == feature : name.starts_with(feature))) {
                mask = bits;
            }
        }
        std::uint32_t number = 0;
        while (number < CDBGP_MODULE_COUNT &&
               !std::string_view(cdbgp_module_to_str(number)).starts_with(module)) {
            ++number;
        }
        const bool all = module.starts_with("ALL");
        if (mask == 0 || (!all && number == CDBGP_MODULE_COUNT)) {
            return 1;
        }
        for (std::uint32_t i = 0; i < CDBGP_MODULE_COUNT; ++i) {
            words[i] |= all || i == number ? mask : 0;
        }
    }
    return 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using settings_fuzz::require;
    const std::string text = std::string(reinterpret_cast<const char*>(data), size).c_str();
    static const bool ready = setenv("VEXA_CONFIG", "/", 1) == 0 && cdbgp_env_init() == CDBGP_SUCCESS;
    require(ready);
    if (cdbgp_env_set("CDBG_PERMISSIONS", text.c_str()) != CDBGP_SUCCESS) {
        require(text.size() >= CDBGP_ENV_TEXT_SIZE);
        return 0;
    }
    settings_fuzz::report_count = 0;
    require(cdbgp_control_init() == CDBGP_SUCCESS);
    cdbgp_control_term();
    std::uint32_t words[CDBGP_MODULE_COUNT] = {};
    require(apply(text, words) == settings_fuzz::report_count);
    require(std::memcmp(words, cdbgp_permissions, sizeof words) == 0);
    return 0;
}
