// The paths that file names become. The first byte of an input is the location, the second a third of the
// storage directory's length, the rest the name. No file is touched.
#include <dlfcn.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "stdlib/vexa_stdlib.h"

namespace {

bool watching = false;
std::optional<std::string> opened;

// Whether a name may not go behind the storage, looked at one character and its successor at a time.
bool is_refused(const std::string& name) {
    constexpr std::string_view never = "\\:*?\"<>|^[]";
    for (std::size_t i = 0; i < name.size(); ++i) {
        const char next = name.c_str()[i + 1];
        const bool ends_part = next == '/' || next == '\0';
        if (never.find(name[i]) != std::string_view::npos || (name[i] == '.' && (ends_part || next == '.')) ||
            (name[i] == '/' && ends_part)) {
            return true;
        }
    }
    return false;
}

std::optional<std::string> expected(unsigned location, const std::string& storage, const std::string& name) {
    if (location > 3 || (location < 2 && is_refused(name))) {
        return std::nullopt;
    }
    std::string path = name;
    if (location < 2 && !storage.empty() && storage.size() < 512 && !name.starts_with('/')) {
        path = storage + '/' + name;
    }
    return path.substr(0, 511);
}

}  // namespace

extern "C" std::FILE* fopen(const char* path, const char* mode) {
    if (!watching) {
        return reinterpret_cast<decltype(&fopen)>(dlsym(RTLD_NEXT, "fopen"))(path, mode);
    }
    opened = path;
    errno = ENOENT;
    return nullptr;
}

extern "C" int access(const char* path, int mode) noexcept {
    return watching ? 0 : reinterpret_cast<decltype(&access)>(dlsym(RTLD_NEXT, "access"))(path, mode);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) {
        return 0;
    }
    const unsigned location = data[0] % 6;
    const std::string storage(data[1] * 3U, 's');
    const std::string name = std::string(reinterpret_cast<const char*>(data + 2), size - 2).c_str();
    setenv("EXTERNAL_STORAGE", storage.c_str(), 1);
    std::FILE* file = nullptr;
    opened.reset();
    watching = true;
    const auto result = stdlibp_fopen(&file, stdlib_file_location{location}, name.c_str(), STDLIB_MODE_WRITE);
    watching = false;
    if (result != STDLIB_FAILURE || opened != expected(location, storage, name)) {
        std::abort();
    }
    return 0;
}
