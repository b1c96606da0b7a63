#include "tests/cdbg/settings.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <utility>

#include "tests/support/platform_log.h"

extern "C" std::FILE* __real_fopen64(const char* path, const char* mode);
extern "C" std::FILE* __wrap_fopen64(const char* path, const char* mode) {
    const auto found = test_support::replaced_files.find(path);
    return found != test_support::replaced_files.end() ? found->second : __real_fopen64(path, mode);
}

namespace test_support {

settings::settings(strings environment, const std::optional<std::string>& content)
    : entries_(std::move(environment)), previous_(environ) {
    if (content.has_value()) {
        std::ofstream(path(), std::ios::binary) << *content;
        entries_.insert(entries_.begin(), "VEXA_CONFIG=" + path());
    }
    for (std::string& entry : entries_) {
        environment_.push_back(entry.data());
    }
    environment_.push_back(nullptr);
    environ = environment_.data();
}

settings::~settings() {
    environ = previous_;
}

strings take_messages(const std::string& source) {
    const std::regex header("==>\\[INIT\\] \\(.+\\) CDBG: In file: " + source +
                            "  line: [0-9]+ [a-z_]+\n([^]*)\n");
    strings messages;
    for (const log_line& line : take_log_lines()) {
        std::smatch parts;
        const bool matches = std::regex_match(line.text, parts, header);
        EXPECT_TRUE(line.priority == 6 && line.tag == "vexa" && matches) << line.text;
        messages.push_back(parts[1]);
    }
    return messages;
}

}  // namespace test_support
