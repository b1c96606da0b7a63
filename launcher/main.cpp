// Loads the counter library into a process of its own and hands it the main thread.
//
// The library is kept for as long as it runs, which is until the process is killed. When it gives up, or
// can't be loaded, the launcher says so on standard error and ends with status 1.

#include <dlfcn.h>

#include <csignal>
#include <cstdio>
#include <cstring>

namespace {

constexpr const char* usage =
    "Usage: counterfeed-launcher [LIBRARY]\n"
    "\n"
    "Offers the GPU's counters to the system's tracing service until it is killed.\n"
    "LIBRARY is by default libcounterfeed.so, looked for like any shared library.\n"
    "\n"
    "  -h, --help       print this\n"
    "  -V, --version    print the version\n"
    "\n"
    "Exit status: 1 when it has no library or the library gave up, 2 wrong usage.\n";

bool is_option(const char* text, const char* letter, const char* word) {
    return std::strcmp(text, letter) == 0 || std::strcmp(text, word) == 0;
}

}  // namespace

int main(int argument_count, char** arguments) {
    const char* const name = argument_count > 1 ? arguments[1] : "libcounterfeed.so";
    if (is_option(name, "-h", "--help")) {
        std::fputs(usage, stdout);
        return 0;
    }
    if (is_option(name, "-V", "--version")) {
        std::puts("counterfeed-launcher " COUNTERFEED_VERSION);
        return 0;
    }
    if (name[0] == '-' || argument_count > 2) {
        std::fprintf(stderr, "counterfeed-launcher: %s: \"%s\"\nTry 'counterfeed-launcher --help'.\n",
                     name[0] == '-' ? "there is no such option" : "there is one library at most",
                     name[0] == '-' ? name : arguments[2]);
        return 2;
    }
    // Whoever reads standard error may go away before us, and a message that nobody reads is no reason to
    // end.
    std::signal(SIGPIPE, SIG_IGN);
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
