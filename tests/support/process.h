// Programs started by tests, each with its own environment and with its output in a file.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

namespace test_support {

// A folder of its own for a test, removed at the end.
class temporary_folder {
public:
    temporary_folder();
    ~temporary_folder();
    temporary_folder(const temporary_folder&) = delete;
    temporary_folder& operator=(const temporary_folder&) = delete;

    std::string file(const std::string& name) const { return path_ / name; }

private:
    std::filesystem::path path_;
};

// The whole file, or an empty text when there is none.
std::string read_file(const std::string& path);

struct process_setup {
    std::vector<std::string> command;
    std::vector<std::string> environment;  // "NAME=value", on top of the test's own
    std::string preload;                   // a library of this build to load first
    std::string output;                    // the file for both output streams; the test's own when empty
    bool of_this_build = false;  // for this build's processor, and so under the emulator where there is one
};

// The launcher with this build's library, on the machine that VIRTUAL_GPU describes.
process_setup launcher_setup(const std::string& gpu, const std::string& output,
                             std::vector<std::string> environment);

// A running program. Killed at the end if it still runs.
class process {
public:
    explicit process(const process_setup& setup);
    ~process();
    process(const process&) = delete;
    process& operator=(const process&) = delete;

    // Waits for the program's end: its exit status, or minus the signal that ended it.
    int wait();
    bool is_running();
    void kill();
    pid_t id() const { return id_; }

private:
    pid_t id_;
    int status_ = 0;
};

// Runs a program to its end; the result of wait().
int run(const process_setup& setup);

// Polls until the condition holds; false when it doesn't within a time, which is generous.
template <typename Condition>
bool eventually(Condition condition, std::chrono::seconds limit = std::chrono::seconds(60)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

}  // namespace test_support
