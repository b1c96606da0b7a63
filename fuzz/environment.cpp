// The environment store, filled from a process environment whose entries are the lines of an input.
#include "fuzz/settings.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace settings_fuzz;
    std::map<std::string, std::string> expected;
    std::size_t reports = 0;
    // The configuration file is not there, whatever the input says.
    std::vector<std::string> entries = {"VEXA_CONFIG=/"};
    for (const std::string& line : split(std::string(reinterpret_cast<const char*>(data), size), '\n')) {
        entries.emplace_back(line.c_str());
    }
    for (const std::string& entry : entries) {
        const std::size_t length = entry.find('=');
        if (entry.empty()) {
            break;
        }
        if (length == std::string::npos || length > 1023 || entry.size() - length - 1 > 1023 ||
            !entry.starts_with("VEXA_")) {
            continue;
        }
        if (length == 5) {
            ++reports;
            break;
        }
        expected[entry.substr(5, length - 5)] = entry.substr(length + 1);
    }
    check_store(entries, expected, reports);
    return 0;
}
