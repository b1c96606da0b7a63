// A program that does with the library what the launcher doesn't: life_probe <library> reload|start.
//
// "reload" loads and unloads it twice, with a thread that ends before and one that ends after the unload, and
// forks with the library and without it. It prints the letter of each thread that is told of its end, and
// what its child ended with. "start" calls start, and follows the letters that it reads from the file that a
// third word names: f forks, e exits.

#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <thread>

#include "osu/vexa_osu.h"

namespace {

void* library;

template <typename Operation>
Operation* find(const char* name, Operation* /*type*/ = nullptr) {
    void* const operation = dlsym(library, name);
    if (operation == nullptr) {
        std::fprintf(stderr, "%s\n", dlerror());
        std::_Exit(2);
    }
    return reinterpret_cast<Operation*>(operation);
}

// Takes all of the library's mutexes, and gives them back.
bool has_its_mutexes() {
    std::set<pthread_mutex_t*> taken;
    for (std::uint32_t i = 0; i < OSUP_STATIC_MUTEX_COUNT; ++i) {
        pthread_mutex_t* const mutex = find<decltype(osup_mutex_static_get)>("osup_mutex_static_get")(i);
        if (pthread_mutex_trylock(mutex) != 0 || !taken.insert(mutex).second) {
            return false;
        }
    }
    for (pthread_mutex_t* const mutex : taken) {
        pthread_mutex_unlock(mutex);
    }
    return true;
}

// What a child ends with.
int child_status() {
    const pid_t child = fork();
    if (child == 0) {
        std::_Exit(library == nullptr || has_its_mutexes() ? 0 : 1);
    }
    int status = 0;
    return waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// A thread with a word of its own, until it is let go.
class worded_thread {
public:
    explicit worded_thread(const char* word)
        : thread_([this, set = find<decltype(osup_thread_data_set)>("osup_thread_data_set"), word] {
              set(const_cast<char*>(word));
              is_set_ = true;
              is_set_.notify_one();
              goes_.wait(false);
          }) {
        is_set_.wait(false);
    }
    void end() {
        goes_ = true;
        goes_.notify_one();
        thread_.join();
    }

private:
    std::atomic<bool> is_set_ = false;
    std::atomic<bool> goes_ = false;
    std::thread thread_;
};

bool reload(const char* path) {
    for (int round = 0; round < 2; ++round) {
        library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
        if (library == nullptr || !has_its_mutexes()) {
            return false;
        }
        find<decltype(osup_thread_callback_set)>("osup_thread_callback_set")(
            [](void* word) { std::printf("%s", static_cast<const char*>(word)); });
        worded_thread before("before ");
        worded_thread after("after ");
        before.end();
        std::printf("%d ", child_status());
        if (dlclose(library) != 0 || dlopen(path, RTLD_NOW | RTLD_NOLOAD) != nullptr) {
            return false;
        }
        library = nullptr;
        after.end();
        std::printf("%d ", child_status());
    }
    return true;
}

bool follow(const char* path, const char* commands_path) {
    library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    std::FILE* const commands = std::fopen(commands_path, "re");
    if (library == nullptr || commands == nullptr) {
        return false;
    }
    std::thread(find<void()>("start")).detach();
    for (int letter = 0; (letter = std::fgetc(commands)) != 'e';) {
        if (letter != 'f') {
            return false;
        }
        std::printf("%d ", child_status());
    }
    return true;
}

}  // namespace

int main(int argument_count, char** arguments) {
    std::setvbuf(stdout, nullptr, _IONBF, 0);
    if (argument_count == 3 && std::strcmp(arguments[2], "reload") == 0) {
        return reload(arguments[1]) ? EXIT_SUCCESS : EXIT_FAILURE;
    }
    return argument_count == 4 && follow(arguments[1], arguments[3]) ? EXIT_SUCCESS : EXIT_FAILURE;
}
