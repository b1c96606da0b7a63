// A sample of the counter hardware in a file.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qel::vexa::evaluate {

enum class encoding {
    binary,  // 32-bit words, little-endian
    json,    // an array of words, or an array of blocks, each an array of 64 words
};

// What messages call a file: its path, and "standard input" for "-".
std::string shown_name(const std::string& path);

// The words of the one sample in the file; "-" is standard input. What can't be read ends the process with
// exit_failure, and what does not consist of whole blocks of words with exit_usage.
std::vector<std::uint32_t> read_sample(const std::string& path, encoding how);

}  // namespace qel::vexa::evaluate
