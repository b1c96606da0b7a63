// How the tools end, complain and read numbers. Single-threaded, like the tools.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace qel::vexa::command_line {

// Exit statuses beside success: what was asked for could not be had; the question makes no sense.
inline constexpr int exit_failure = 1;
inline constexpr int exit_usage = 2;

// Prints "PROGRAM: message" on standard error.
void complain(const std::string& message);

// Does that and ends the process.
[[noreturn]] void fail(int status, const std::string& message);

// What every complaint about the command line ends with: points at --help, and ends with exit_usage. An empty
// message stands for one that has been printed already.
[[noreturn]] void fail_usage(const std::string& message);

// The answer to --version.
std::string version_text();
void print_version();

// The bytes of a file, or of standard input for "-". What can't be read ends the process.
std::string file_argument(const std::string& path, int status_when_unreadable = exit_failure);

// Ends the process with success, or with the other status when standard output could not take all that was
// written.
[[noreturn]] void finish(int status_when_lost = exit_failure);

// A whole number, decimal or after 0x or 0b, and no larger than most; nothing for any other text.
std::optional<std::uint64_t> parse_number(std::string_view text, std::uint64_t most);

// The same for the value of an option. What is no such number ends the process, with the option's name and
// the limits in the message.
std::uint64_t number_argument(const char* option, const char* text, std::uint64_t least, std::uint64_t most);

}  // namespace qel::vexa::command_line
