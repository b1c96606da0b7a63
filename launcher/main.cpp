// Loads the counter library into a process of its own and hands it the main thread.
//
// The library is kept for as long as it runs, which is until the process is killed. When it gives up, or
// can't be loaded, the launcher says so on standard error and ends with status 1.

#include <dlfcn.h>

#include <cstdio>
#include <cstring>

namespace {

constexpr const char* usage =
    "usage: counterfeed-launcher [LIBRARY]\n"
    "       counterfeed-launcher --help | --version\n"
    "\n"
    "Offers the GPU's counters to the system's tracing service until it is killed.\n"
    "LIBRARY is by default libcounterfeed.so, looked for like any shared library.\n";

}  // namespace

int main(int argument_count, char** arguments) {
    const char* const name = argument_count > 1 ? arguments[1] : "libcounterfeed.so";
    if (std::strcmp(name, "--help") == 0) {
        std::fputs(usage, stdout);
        return 0;
    }
    if (std::strcmp(name, "--version") == 0) {
        std::puts("counterfeed-launcher " COUNTERFEED_VERSION);
        return 0;
    }
    if (name[0] == '-' || argument_count > 2) {
        std::fputs(usage, stderr);
        return 2;
    }
    void* const library = dlopen(name, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        std::fprintf(stderr, "counterfeed-launcher: can't load the library: %s\n", dlerror());
        return 1;
    }
    const auto start = reinterpret_cast<void (*)()>(dlsym(library, "start"));
    if (start == nullptr) {
        std::fprintf(stderr, "counterfeed-launcher: %s is not the counter library: %s\n", name, dlerror());
        return 1;
    }
    start();
    std::fprintf(stderr,
                 "counterfeed-launcher: %s gave up: it could not identify the GPU behind /dev/vexa0, so no "
                 "counters are "
                 "offered. The system log has its message.\n",
                 name);
    return 1;
}
