#include "tests/support/process.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <utility>

namespace test_support {

temporary_folder::temporary_folder() {
    std::string name = std::filesystem::temp_directory_path() / "counterfeed-XXXXXX";
    if (::mkdtemp(name.data()) == nullptr) {
        throw std::runtime_error("no temporary folder");
    }
    path_ = name;
}

temporary_folder::~temporary_folder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string read_file(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

process_setup launcher_setup(const std::string& gpu, const std::string& output,
                             std::vector<std::string> environment) {
    environment.push_back("VIRTUAL_GPU=" + gpu);
    return {.command = {COUNTERFEED_LAUNCHER, COUNTERFEED_LIBRARY},
            .environment = std::move(environment),
            .preload = COUNTERFEED_VIRTUAL_GPU,
            .output = output,
            .of_this_build = true};
}

process::process(const process_setup& setup) {
    std::vector<std::string> words;
    std::vector<std::string> settings = setup.environment;
    const std::string emulator = setup.of_this_build ? COUNTERFEED_EMULATOR : "";
    if (!emulator.empty()) {
        words.push_back(emulator);
        if (!setup.preload.empty()) {
            // For the emulated program only: the emulator itself can't load the library.
            words.insert(words.end(), {"-E", "LD_PRELOAD=" + setup.preload});
        }
    } else if (!setup.preload.empty()) {
        settings.push_back("LD_PRELOAD=" + setup.preload);
        // A sanitizer would rather be the first library, but needn't be.
        settings.push_back("ASAN_OPTIONS=verify_asan_link_order=0");
    }
    words.insert(words.end(), setup.command.begin(), setup.command.end());

    std::vector<char*> arguments;
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    std::vector<char*> environment;
    for (std::string& setting : settings) {
        environment.push_back(setting.data());
    }
    for (char** entry = environ; *entry != nullptr; ++entry) {
        environment.push_back(*entry);
    }
    environment.push_back(nullptr);

    id_ = ::fork();
    if (id_ == 0) {
        // Only calls that are safe in the child of a process with threads.
        if (!setup.output.empty()) {
            const int file = ::open(setup.output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            ::dup2(file, STDOUT_FILENO);
            ::dup2(file, STDERR_FILENO);
        }
        ::execve(arguments[0], arguments.data(), environment.data());
        ::_exit(127);
    }
    if (id_ < 0) {
        throw std::runtime_error("no new process");
    }
}

process::~process() {
    kill();
}

int process::wait() {
    if (id_ > 0) {
        int status = 0;
        while (::waitpid(id_, &status, 0) < 0 && errno == EINTR) {
        }
        status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
        id_ = 0;
    }
    return status_;
}

bool process::is_running() {
    if (id_ <= 0) {
        return false;
    }
    siginfo_t info{};
    return ::waitid(P_PID, static_cast<id_t>(id_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == 0;
}

void process::kill() {
    if (id_ > 0) {
        ::kill(id_, SIGKILL);
        wait();
    }
}

int run(const process_setup& setup) {
    return process(setup).wait();
}

}  // namespace test_support
