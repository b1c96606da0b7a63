// Loads a library and does nothing else with it. Prints what the library's initialisers made, in their order:
// the objects that are to be destroyed at exit, which the compiler hands to the C library as soon as they are
// made.

#include <dlfcn.h>

#include <cstdint>
#include <cstdio>

#include "tests/support/elf_symbols.h"
#include "tests/support/process.h"

namespace {

constexpr std::size_t capacity = 64;
std::uintptr_t made[capacity];
std::size_t made_count = 0;
bool is_loading = false;

int note(void* object) {
    if (is_loading && made_count < capacity) {
        made[made_count++] = reinterpret_cast<std::uintptr_t>(object);
    }
    return 0;
}

}  // namespace

// In the place of the C library's, under the names that the processors' conventions give it. Nothing is
// destroyed.
extern "C" __attribute__((visibility("default"))) int __cxa_atexit(void (*)(void*), void* object, void*) {
    return note(object);
}
extern "C" __attribute__((visibility("default"))) int __aeabi_atexit(void* object, void (*)(void*), void*) {
    return note(object);
}

int main(int argument_count, char** arguments) {
    if (argument_count != 2) {
        return 2;
    }
    is_loading = true;
    void* const library = dlopen(arguments[1], RTLD_NOW);
    is_loading = false;
    Dl_info place{};
    if (library == nullptr || dladdr(dlsym(library, "start"), &place) == 0) {
        std::fprintf(stderr, "%s\n", dlerror());
        return 1;
    }
    const auto symbols = test_support::elf_symbols(test_support::read_file(arguments[1]), SHT_SYMTAB);
    for (std::size_t i = 0; i < made_count; ++i) {
        const std::uintptr_t offset = made[i] - reinterpret_cast<std::uintptr_t>(place.dli_fbase);
        const auto found = std::find_if(symbols.begin(), symbols.end(),
                                        [offset](const auto& symbol) { return symbol.second == offset; });
        std::printf("%s\n", found == symbols.end() ? "?" : found->first.c_str());
    }
}
