// A tool's options, told once: what it takes, what --help prints, what the shell completes and what the
// manual page lists are made from the same table.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "workstation/command_line/output.h"
#include "workstation/command_line/program.h"

namespace qel::vexa::command_line {

class options {
public:
    // The lines that follow "Usage: " and what the tool does; what --help ends with.
    options(std::vector<std::string> synopses, std::string purpose, std::string closing);
    ~options();
    options(const options&) = delete;
    options& operator=(const options&) = delete;

    // The heading of the options that are added from here on.
    void section(const std::string& title);

    // Names are written as "-g,--gpu". A flag stands alone, or sets its target.
    void flag(const std::string& names, const std::string& text, std::function<void()> act);
    void flag(const std::string& names, const std::string& text, bool& target);
    // A flag that may have a value behind a "=", and otherwise has the one for a flag that stands alone. The
    // target stays as it is without the flag.
    void flag_with_value(const std::string& names, const std::string& value_when_alone,
                         const std::string& placeholder, const std::string& text, std::string& target);

    // An option with a value, of which the placeholder says what it is; FILE and its like are completed as
    // files, all others from the choices. It may be repeated: take is called for each value, in their order.
    void value(const std::string& names, const std::string& placeholder, const std::string& text,
               std::function<void(const std::string&)> take, std::vector<std::string> choices = {});
    void value(const std::string& names, const std::string& placeholder, const std::string& text,
               std::string& target, std::vector<std::string> choices = {});
    // A whole number within limits; any other ends the process with exit_usage.
    void number(const std::string& names, const std::string& placeholder, const std::string& text,
                std::uint64_t least, std::uint64_t most, std::function<void(std::uint64_t)> take);

    // --json and --csv, which exclude each other.
    void output_format(format& how);

    // Takes the command line, and acts on --help and --version, which end the process with success or with
    // the status when standard output can't take them. Wrong usage ends it with exit_usage. Gives what is
    // left: the arguments that are no options.
    std::vector<std::string> parse(int argument_count, char** arguments, int status_when_lost = exit_failure);

private:
    struct table;
    std::unique_ptr<table> table_;
};

}  // namespace qel::vexa::command_line
