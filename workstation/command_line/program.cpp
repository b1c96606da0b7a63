#include "workstation/command_line/program.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace qel::vexa::command_line {

void complain(const std::string& message) {
    std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, message.c_str());
}

void fail(int status, const std::string& message) {
    std::fflush(stdout);
    complain(message);
    std::exit(status);
}

void fail_usage(const std::string& message) {
    if (!message.empty()) {
        complain(message);
    }
    std::fprintf(stderr, "Try '%s --help'.\n", program_invocation_short_name);
    std::exit(exit_usage);
}

std::string version_text() {
    return std::string(program_invocation_short_name) + " " COUNTERFEED_VERSION "\n";
}

void print_version() {
    std::fputs(version_text().c_str(), stdout);
}

std::string file_argument(const std::string& path, int status_when_unreadable) {
    std::FILE* const file = path == "-" ? stdin : std::fopen(path.c_str(), "rb");
    std::string bytes;
    std::size_t size = 0;
    std::array<char, 65536> piece{};
    while (file != nullptr && (size = std::fread(piece.data(), 1, piece.size(), file)) != 0) {
        bytes.append(piece.data(), size);
    }
    if (file == nullptr || std::ferror(file) != 0) {
        fail(status_when_unreadable, "can't read " + path + ": " + std::strerror(errno));
    }
    if (file != stdin) {
        std::fclose(file);
    }
    return bytes;
}

void finish(int status_when_lost) {
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        fail(status_when_lost, std::string("can't write the output: ") + std::strerror(errno));
    }
    std::exit(EXIT_SUCCESS);
}

std::optional<std::uint64_t> parse_number(std::string_view text, std::uint64_t most) {
    int base = 10;
    if (text.starts_with("0x") || text.starts_with("0X")) {
        base = 16;
    } else if (text.starts_with("0b") || text.starts_with("0B")) {
        base = 2;
    }
    if (base != 10) {
        text.remove_prefix(2);
    }
    std::uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    return error == std::errc() && end == text.data() + text.size() && value <= most ? std::optional(value)
                                                                                     : std::nullopt;
}

std::uint64_t number_argument(const char* option, const char* text, std::uint64_t least, std::uint64_t most) {
    const std::optional<std::uint64_t> number = parse_number(text, most);
    if (!number || *number < least) {
        fail_usage(std::string(option) + " is a whole number from " + std::to_string(least) + " to " +
                   std::to_string(most) + ", not \"" + text + "\"");
    }
    return *number;
}

}  // namespace qel::vexa::command_line
