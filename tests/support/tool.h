// The command-line tools as their users meet them: processes, and what they print.
#pragma once

#include <string>
#include <vector>

namespace test_support {

struct tool_result {
    int status;
    std::string out;
    std::string err;
};

// Runs a program of this build to its end. Its output can go to a file of the test's choice instead.
tool_result run_tool(const std::string& program, const std::vector<std::string>& arguments,
                     const std::string& input = "/dev/null", const std::string& output = {});

// What a line of the shell's shows on a terminal of this width. Lines end in a carriage return as well.
std::string shown_on_terminal(const std::string& command, unsigned columns);

// The parts of a text between vertical bars; none when it is empty.
std::vector<std::string> words_of(const std::string& text);

// The fields of each line of CSV. Lines end in a line feed.
std::vector<std::vector<std::string>> read_csv(const std::string& text);

}  // namespace test_support
