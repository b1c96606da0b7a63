#include "workstation/record/place.h"

#include <fmt/core.h>

#include <filesystem>
#include <utility>

#include "workstation/command_line/output.h"
#include "workstation/command_line/program.h"

namespace qel::vexa::record {

namespace {

using command_line::program_result;
using command_line::shell_line;

// The one folder of a device that the service's consumer may write traces into.
constexpr const char* device_folder = "/data/misc/perfetto-traces/";

}  // namespace

place::place(bool behind_adb, std::string serial, bool dry_run)
    : behind_adb_(behind_adb), serial_(std::move(serial)), dry_run_(dry_run) {}

std::vector<std::string> place::adb(std::vector<std::string> words) const {
    if (!serial_.empty()) {
        words.insert(words.begin(), {"-s", serial_});
    }
    words.insert(words.begin(), "adb");
    return words;
}

std::vector<std::string> place::command(const std::string& line) const {
    // Without a terminal of its own the shell passes all bytes on as they are, and the exit status.
    return behind_adb_ ? adb({"shell", "-T", line}) : std::vector<std::string>{"sh", "-c", line};
}

std::string place::shown(const std::string& line) const {
    return behind_adb_ ? shell_line(command(line)) : line;
}

program_result place::shell(effect what, const std::string& line, const std::string& input,
                            const std::function<void(const std::string&)>& meanwhile) const {
    if (dry_run_) {
        command_line::print(shown(line) + "\n");
        if (what == effect::records) {
            return {.status = 0, .out = {}, .err = {}};
        }
    }
    return command_line::run_program(command(line), input, {}, meanwhile);
}

std::string place::file_there(const std::string& file_here) const {
    return behind_adb_ ? device_folder + std::filesystem::path(file_here).filename().string()
                       : std::filesystem::absolute(file_here).string();
}

std::string place::fetch_lines(const std::string& file_here) const {
    const std::string there = file_there(file_here);
    return behind_adb_
               ? shell_line(adb({"pull", there, file_here})) + "\n" + shown("rm " + shell_line({there}))
               : "";
}

void place::fetch(const std::string& file_here) const {
    if (!behind_adb_) {
        return;
    }
    if (dry_run_) {
        command_line::print(fetch_lines(file_here) + "\n");
        return;
    }
    const std::string there = file_there(file_here);
    const program_result pulled = command_line::run_program(adb({"pull", there, file_here}));
    if (pulled.status != 0) {
        command_line::fail(command_line::exit_failure,
                           fmt::format("the trace stays on {} as {}: adb says\n{}{}", name(), there,
                                       pulled.out, pulled.err));
    }
    shell(effect::records, "rm " + shell_line({there}));
}

}  // namespace qel::vexa::record
