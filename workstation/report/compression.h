// What is compressed in a trace, and whole traces that are. Builds that found no library for a format say so.
#pragma once

#include <cstddef>
#include <iosfwd>
#include <memory>
#include <string>
#include <string_view>

namespace qel::vexa::report {

enum class packet_compression { zlib, zstd };

// Adds the uncompressed bytes. Gives what is wrong, such as damage or more bytes than there may be, or null.
const char* decompress(std::string_view bytes, packet_compression format, std::size_t most,
                       std::string& result);

// The bytes of a stream, from its position on: as they stand there or, if they begin as gzip's do,
// decompressed.
class byte_source {
public:
    explicit byte_source(std::istream& file);
    ~byte_source();
    byte_source(const byte_source&) = delete;
    byte_source& operator=(const byte_source&) = delete;

    // Reads at most so many bytes. 0 at the end, and where nothing can be read on: fault() tells which.
    std::size_t read(char* bytes, std::size_t count);
    // Why there is nothing more although there should be; null when there should not.
    const char* fault() const { return fault_; }
    // Whether what was read is another number of bytes than the file has.
    bool is_compressed() const { return decoder_ != nullptr; }

private:
    struct gzip_decoder;

    std::istream& file_;
    std::unique_ptr<gzip_decoder> decoder_;
    const char* fault_ = nullptr;
};

}  // namespace qel::vexa::report
