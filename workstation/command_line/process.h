// Other programs that a tool runs.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace qel::vexa::command_line {

struct program_result {
    int status;  // the exit status; 127 when it could not be started, 128 and the signal when one ended it
    std::string out;
    std::string err;
};

// Runs a program, which is looked for as the shell does, to its end. It reads the input, and gets the
// variables
// ("NAME=value") on top of this process's. It has a process group of its own, so that a terminal's Ctrl-C
// does not reach it. Several times a second the function gets what the program has printed up to then.
program_result run_program(const std::vector<std::string>& command, const std::string& input = {},
                           const std::vector<std::string>& variables = {},
                           const std::function<void(const std::string&)>& meanwhile = {});

// Words as a shell takes them, with quotes where it needs them.
std::string shell_line(const std::vector<std::string>& words);

}  // namespace qel::vexa::command_line
