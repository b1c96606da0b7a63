#include "workstation/report/compression.h"

#ifdef COUNTERFEED_ZLIB
#include <zlib.h>
#endif
#ifdef COUNTERFEED_ZSTD
#include <zstd.h>
#endif

#include <istream>
#include <vector>

namespace qel::vexa::report {

namespace {

[[maybe_unused]] constexpr std::size_t compression_piece_size = std::size_t{1} << 16;
[[maybe_unused]] constexpr const char* damaged = "damaged compressed packets";
constexpr const char* unsupported = "compressed packets, which this build can't read";

#ifdef COUNTERFEED_ZLIB
const char* inflate_all(std::string_view bytes, std::size_t most, std::string& result) {
    z_stream stream{};
    if (inflateInit(&stream) != Z_OK) {
        return "no memory for compressed packets";
    }
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
    stream.avail_in = static_cast<uInt>(bytes.size());
    int status = Z_OK;
    while (status == Z_OK && result.size() < most) {
        const std::size_t done = result.size();
        result.resize(done + compression_piece_size);
        stream.next_out = reinterpret_cast<Bytef*>(result.data() + done);
        stream.avail_out = static_cast<uInt>(compression_piece_size);
        status = inflate(&stream, Z_NO_FLUSH);
        result.resize(result.size() - stream.avail_out);
    }
    inflateEnd(&stream);
    return status == Z_STREAM_END ? nullptr : damaged;
}
#endif

#ifdef COUNTERFEED_ZSTD
// One frame or several.
const char* decompress_zstd(std::string_view bytes, std::size_t most, std::string& result) {
    const std::unique_ptr<ZSTD_DCtx, std::size_t (*)(ZSTD_DCtx*)> context(ZSTD_createDCtx(), ZSTD_freeDCtx);
    if (context == nullptr) {
        return "no memory for compressed packets";
    }
    ZSTD_inBuffer in{bytes.data(), bytes.size(), 0};
    std::size_t status = 1;
    bool is_full = true;  // the last piece: more may be to come without further input
    while ((in.pos < in.size || is_full) && result.size() < most) {
        const std::size_t done = result.size();
        result.resize(done + compression_piece_size);
        ZSTD_outBuffer out{result.data() + done, compression_piece_size, 0};
        status = ZSTD_decompressStream(context.get(), &out, &in);
        result.resize(done + out.pos);
        if (ZSTD_isError(status) != 0) {
            return damaged;
        }
        is_full = out.pos == compression_piece_size;
    }
    return status == 0 && in.pos == in.size ? nullptr : damaged;
}
#endif

}  // namespace

const char* decompress([[maybe_unused]] std::string_view bytes, [[maybe_unused]] packet_compression format,
                       [[maybe_unused]] std::size_t most, std::string& result) {
    result.clear();
#ifdef COUNTERFEED_ZLIB
    if (format == packet_compression::zlib) {
        return inflate_all(bytes, most, result);
    }
#endif
#ifdef COUNTERFEED_ZSTD
    if (format == packet_compression::zstd) {
        return decompress_zstd(bytes, most, result);
    }
#endif
    return unsupported;
}

#ifdef COUNTERFEED_ZLIB
struct byte_source::gzip_decoder {
    z_stream stream{};
    std::vector<char> input = std::vector<char>(compression_piece_size);
    bool is_ready = false;
    bool is_between_members = false;  // where the file may end

    gzip_decoder() {
        constexpr int gzip_alone = 16;
        is_ready = inflateInit2(&stream, MAX_WBITS + gzip_alone) == Z_OK;
    }
    ~gzip_decoder() {
        if (is_ready) {
            inflateEnd(&stream);
        }
    }
    gzip_decoder(const gzip_decoder&) = delete;
    gzip_decoder& operator=(const gzip_decoder&) = delete;
};
#else
struct byte_source::gzip_decoder {};
#endif

byte_source::byte_source(std::istream& file) : file_(file) {
#ifdef COUNTERFEED_ZLIB
    // A trace begins with the tag of a packet; these two bytes are no such thing.
    const std::istream::pos_type start = file.tellg();
    char mark[2] = {};
    file.read(mark, sizeof mark);
    file.clear();
    file.seekg(start);
    if (mark[0] == '\x1f' && mark[1] == '\x8b') {
        decoder_ = std::make_unique<gzip_decoder>();
        fault_ = decoder_->is_ready ? nullptr : "no memory to read a compressed file";
    }
#endif
}

byte_source::~byte_source() = default;

std::size_t byte_source::read(char* bytes, std::size_t count) {
    const auto read_file = [this](char* target, std::size_t most) {
        file_.read(target, static_cast<std::streamsize>(most));
        return static_cast<std::size_t>(file_.gcount());
    };
    if (decoder_ == nullptr) {
        return read_file(bytes, count);
    }
    std::size_t done = 0;
#ifdef COUNTERFEED_ZLIB
    z_stream& stream = decoder_->stream;
    while (done < count && fault_ == nullptr) {
        if (stream.avail_in == 0) {
            stream.next_in = reinterpret_cast<Bytef*>(decoder_->input.data());
            stream.avail_in = static_cast<uInt>(read_file(decoder_->input.data(), compression_piece_size));
            if (stream.avail_in == 0) {
                fault_ = decoder_->is_between_members ? nullptr : "the compressed file is cut short";
                break;
            }
        }
        if (decoder_->is_between_members) {
            inflateReset(&stream);
            decoder_->is_between_members = false;
        }
        stream.next_out = reinterpret_cast<Bytef*>(bytes + done);
        stream.avail_out = static_cast<uInt>(count - done);
        const int status = inflate(&stream, Z_NO_FLUSH);
        done = count - stream.avail_out;
        decoder_->is_between_members = status == Z_STREAM_END;
        if (status != Z_OK && status != Z_STREAM_END && status != Z_BUF_ERROR) {
            fault_ = "the compressed file is damaged";
        }
    }
#endif
    return done;
}

}  // namespace qel::vexa::report
