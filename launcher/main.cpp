// Loads the counter library into a process of its own and hands it the main thread.
//
// Usage: counterfeed-launcher [LIBRARY]
// LIBRARY is by default libcounterfeed.so, looked for like any shared library. It is kept for as long as the
// library runs, which is until the process is killed. When the library gives up, or can't be loaded, the
// launcher says so on standard error and ends with status 1.

#include <dlfcn.h>

#include <cstdio>

int main(int argument_count, char** arguments) {
    const char* const name = argument_count > 1 ? arguments[1] : "libcounterfeed.so";
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
