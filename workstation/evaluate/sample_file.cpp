#include "workstation/evaluate/sample_file.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string_view>

#include "hwc/counter_descriptor.h"
#include "workstation/command_line/program.h"

namespace qel::vexa::evaluate {

namespace {

using command_line::exit_failure;
using command_line::exit_usage;
using command_line::fail;
using hwc::counters_per_block;
using nlohmann::json;

constexpr std::size_t bytes_per_word = 4;
// Far beyond any sample, also one written as JSON.
constexpr std::size_t size_limit = std::size_t{16} << 20;

std::string read_file(const std::string& path) {
    std::FILE* const file = path == "-" ? stdin : std::fopen(path.c_str(), "rb");
    if (file == nullptr) {
        fail(exit_failure, "can't read " + path + ": " + std::strerror(errno));
    }
    std::string bytes;
    std::array<char, 65536> piece{};
    while (bytes.size() <= size_limit) {
        const std::size_t size = std::fread(piece.data(), 1, piece.size(), file);
        if (size == 0) {
            break;
        }
        bytes.append(piece.data(), size);
    }
    if (std::ferror(file) != 0) {
        fail(exit_failure, "can't read " + shown_name(path) + ": " + std::strerror(errno));
    }
    if (file != stdin) {
        std::fclose(file);
    }
    if (bytes.size() > size_limit) {
        fail(exit_usage, shown_name(path) + " has more than " + std::to_string(size_limit) +
                             " bytes, which no sample has");
    }
    return bytes;
}

void check_whole_blocks(const std::string& path, std::size_t size, std::size_t block, const char* what) {
    if (size % block != 0) {
        fail(exit_usage, path + " has " + std::to_string(size) + " " + what +
                             ", which is no whole number of blocks of " + std::to_string(block));
    }
}

std::vector<std::uint32_t> words_of_bytes(const std::string& path, std::string_view bytes) {
    check_whole_blocks(path, bytes.size(), bytes_per_word * counters_per_block, "bytes");
    std::vector<std::uint32_t> words(bytes.size() / bytes_per_word);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        words[i / bytes_per_word] |= std::uint32_t{static_cast<unsigned char>(bytes[i])}
                                     << 8 * (i % bytes_per_word);
    }
    return words;
}

// Adds an array's words. The path tells where in the file the array stands.
void add_words(const std::string& path, const json& array, std::vector<std::uint32_t>& words) {
    for (std::size_t i = 0; i < array.size(); ++i) {
        const json& word = array[i];
        if (!word.is_number_unsigned() || word.get<std::uint64_t>() > UINT32_MAX) {
            fail(exit_usage, path + ": word " + std::to_string(i) + " is " + word.dump(-1, ' ', true) +
                                 ", not a whole number from 0 to " + std::to_string(UINT32_MAX));
        }
        words.push_back(word.get<std::uint32_t>());
    }
}

std::vector<std::uint32_t> words_of_json(const std::string& path, const std::string& text) {
    json sample;
    try {
        sample = json::parse(text);
    } catch (const json::parse_error& error) {
        fail(exit_usage, path + " is no JSON from byte " + std::to_string(error.byte) + " on");
    }
    if (!sample.is_array()) {
        fail(exit_usage,
             path + " holds no array of words or blocks, but something of the type " + sample.type_name());
    }
    std::vector<std::uint32_t> words;
    if (sample.empty() || !sample.front().is_array()) {
        add_words(path, sample, words);
        check_whole_blocks(path, words.size(), counters_per_block, "words");
        return words;
    }
    for (std::size_t i = 0; i < sample.size(); ++i) {
        const std::string block = path + ": block " + std::to_string(i);
        if (!sample[i].is_array() || sample[i].size() != counters_per_block) {
            fail(exit_usage,
                 block + " is no array of " + std::to_string(counters_per_block) + " words, but " +
                     (sample[i].is_array() ? "one of " + std::to_string(sample[i].size())
                                           : std::string("something of the type ") + sample[i].type_name()));
        }
        add_words(block, sample[i], words);
    }
    return words;
}

}  // namespace

std::string shown_name(const std::string& path) {
    return path == "-" ? "standard input" : path;
}

std::vector<std::uint32_t> read_sample(const std::string& path, encoding how) {
    const std::string bytes = read_file(path);
    const std::string name = shown_name(path);
    return how == encoding::json ? words_of_json(name, bytes) : words_of_bytes(name, bytes);
}

}  // namespace qel::vexa::evaluate
