// The environment store, filled from a configuration file that holds an input.
#include <sys/mman.h>

#include <cerrno>
#include <set>

#include "fuzz/settings.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace settings_fuzz;
    const int file = memfd_create("configuration", 0);
    require(write(file, data, size) == static_cast<ssize_t>(size));
    const std::string path = "/proc/self/fd/" + std::to_string(file);

    std::map<std::string, std::string> expected = {{"CONFIG", path}};
    std::set<std::string> specific;
    std::size_t reports = 0;
    for (const std::string& bytes : split(std::string(reinterpret_cast<const char*>(data), size), '\n')) {
        if (bytes.empty() || bytes[0] == '#') {
            continue;
        }
        const std::string line = bytes.c_str();  // a NUL ends what is read of a line
        const std::size_t delimiter = line.find('=');
        if (bytes.size() > 3071 || delimiter == std::string::npos) {
            ++reports;
            continue;
        }
        const std::size_t colon = line.substr(0, delimiter).rfind(':');
        const std::size_t start = colon == std::string::npos ? 0 : colon + 1;
        const std::string name = line.substr(start, delimiter - start);
        const std::string value = line.substr(delimiter + 1);
        if ((start != 0 && colon > 1023) || name.size() > 1023 || value.size() > 1023) {
            ++reports;
            continue;
        }
        const std::string key = without_prefix(name);
        if (start == 0 ? specific.contains(key) : line.substr(0, colon) != program_invocation_short_name) {
            continue;
        }
        if (key.empty()) {
            ++reports;
        } else if (key != "CONFIG") {  // which the variable overwrites
            expected[key] = value;
            if (start != 0) {
                specific.insert(key);
            }
        }
    }
    check_store({"VEXA_CONFIG=" + path}, expected, reports);
    close(file);
    return 0;
}
