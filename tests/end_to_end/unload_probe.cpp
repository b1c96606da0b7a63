// A client of the library's unload: unload_probe <library> close|exit|fail <word>... follows the words and
// unloads the library, twice, or exits; "fail" lets the library's last mutex fail when it loads.
//
// +A registers and -A deregisters a callback that prints "A" and follows the words behind the letter, *A
// another one that prints "(A)". !0 lets the library print of a core that there can't be: 48, the number of
// the character. What unloading does at the end prints "." and follows what stands in a word behind a dot;
// what the program does after that, at its exit, stands behind a tilde.

#include <dlfcn.h>
#include <sys/prctl.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "osu/vexa_osu.h"

namespace {

int failing_mutex_init;  // which of the next calls fails, counted from 1
const char* last_word = "";
decltype(osup_register_unload_callback)* register_callback;
decltype(osup_deregister_unload_callback)* deregister_callback;
decltype(osup_thread_data_set)* set_data;
decltype(osup_set_core_id)* set_core;

void print(void* word);
void print_in_brackets(void* word);

// A word of its own for each letter, so that equal letters are equal arguments. What a letter does is told by
// the first word that has it.
const char* word_of(const char* word) {
    static const char* words[128];
    const char*& known = words[static_cast<unsigned char>(*word) % 128];
    return known = known != nullptr ? known : word;
}

// Does what one word says.
void follow(const char* word) {
    void* const argument = const_cast<char*>(word_of(word + 1));
    if (*word == '!') {
        set_core(static_cast<unsigned char>(word[1]));
    } else if (*word == '.') {
        set_data(const_cast<char*>(word));
    } else if (*word == '~') {
        last_word = word;
    } else if (*word == '-') {
        deregister_callback(print, argument);
    } else if (register_callback(*word == '+' ? print : print_in_brackets, argument) != OSUP_SUCCESS) {
        std::exit(3);
    }
}

void print(void* word) {
    const char* const letter = static_cast<const char*>(word);
    std::printf("%.1s", letter);
    for (const char* next = letter + 1; *letter != '\0' && *next != '\0'; next += 2) {
        follow(next);
    }
}

void print_in_brackets(void* word) {
    std::printf("(%c)", *static_cast<const char*>(word));
}

template <typename Operation>
void find(void* library, const char* name, Operation*& operation) {
    operation = reinterpret_cast<Operation*>(dlsym(library, name));
    if (operation == nullptr) {
        std::exit(2);
    }
}

}  // namespace

// In the place of the shared libraries' own, also for the library.
extern "C" __attribute__((visibility("default"))) int pthread_mutex_init(
    pthread_mutex_t* mutex,
    const pthread_mutexattr_t* attributes) noexcept(noexcept(::pthread_mutex_init(mutex, attributes))) {
    static const auto real =
        reinterpret_cast<decltype(&pthread_mutex_init)>(dlsym(RTLD_NEXT, "pthread_mutex_init"));
    return --failing_mutex_init == 0 ? ENOMEM : real(mutex, attributes);
}

extern "C" __attribute__((visibility("default"))) int __android_log_write(int priority, const char* tag,
                                                                          const char* text) {
    return std::printf("%d/%s:%s", priority, tag, text);
}

int main(int argument_count, char** arguments) {
    if (argument_count < 3) {
        return 2;
    }
    std::setvbuf(stdout, nullptr, _IONBF, 0);  // as what the library prints
    prctl(PR_SET_NAME, "probe");
    std::atexit([] { print(const_cast<char*>(last_word)); });
    const bool closes = std::strcmp(arguments[2], "close") == 0;
    if (std::strcmp(arguments[2], "fail") == 0) {
        failing_mutex_init = OSUP_STATIC_MUTEX_COUNT + 1;
    }
    for (int round = 0; round < (closes ? 2 : 1); ++round) {
        void* const library = dlopen(arguments[1], RTLD_NOW | RTLD_LOCAL);
        if (library == nullptr) {
            std::fprintf(stderr, "%s\n", dlerror());
            return 1;
        }
        find(library, "osup_register_unload_callback", register_callback);
        find(library, "osup_deregister_unload_callback", deregister_callback);
        find(library, "osup_thread_data_set", set_data);
        find(library, "osup_set_core_id", set_core);
        decltype(osup_thread_callback_set)* set_callback = nullptr;
        find(library, "osup_thread_callback_set", set_callback);
        set_callback(print);
        static char end[] = ".";
        set_data(end);
        for (int i = 3; i < argument_count; ++i) {
            follow(arguments[i]);
        }
        if (closes && (dlclose(library) != 0 || dlopen(arguments[1], RTLD_NOW | RTLD_NOLOAD) != nullptr)) {
            return 4;
        }
    }
}
