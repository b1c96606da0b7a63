// What diagnostics takes its settings from, under a test's control, and what it then says.
#pragma once

#include <cstdio>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/process.h"

namespace test_support {

using strings = std::vector<std::string>;

// Streams that take the place of files, by path; null for a file that can't be opened.
inline std::map<std::string, std::FILE*> replaced_files;

// A process environment, and a configuration file if there is content for one, while the object lasts.
class settings {
public:
    explicit settings(strings environment, const std::optional<std::string>& content = {});
    ~settings();
    settings(const settings&) = delete;
    settings& operator=(const settings&) = delete;

    std::string path() const { return folder_.file("f"); }

private:
    temporary_folder folder_;
    strings entries_;
    std::vector<char*> environment_;
    char** previous_;
};

// The messages on the emergency channel since the last call, each without its header, which is checked.
strings take_messages(const std::string& source);

}  // namespace test_support
