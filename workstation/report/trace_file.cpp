#include "workstation/report/trace_file.h"

#ifdef COUNTERFEED_ZLIB
#include <zlib.h>
#endif

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <istream>
#include <iterator>
#include <limits>
#include <protozero/varint.hpp>
#include <sstream>
#include <string_view>

#include "workstation/protocol/messages.h"

namespace qel::vexa::report {

namespace {

using protocol::field;
using protocol::for_each_field;
using protocol::take_number;

enum packet_field : std::uint32_t {
    packet_ftrace_events = 1,
    packet_timestamp = 8,
    packet_sequence = 10,
    packet_compressed_packets = 50,
    packet_gpu_counter_event = 52,
};
enum event_field : std::uint32_t { event_descriptor = 1, event_counters = 2 };
enum value_field : std::uint32_t { value_counter_id = 1, value_whole = 2, value_double = 3 };

// A trace is nothing but packets, each a tag, a length and so many bytes.
constexpr char packet_tag = 1 << 3 | 2;
constexpr std::size_t max_header = 11;
// Far above what the service lets through. A longer packet is a damaged length.
constexpr std::size_t max_packet = std::size_t{64} << 20;
// A packet at which reading may go on behind a damage: bounds what a search through garbage costs.
constexpr std::size_t max_resumed_packet = std::size_t{1} << 20;
constexpr std::size_t piece_size = std::size_t{1} << 20;
constexpr std::uint64_t progress_step = std::uint64_t{4} << 20;

bool read_value(std::string_view bytes, counter_value& value) {
    return for_each_field(bytes, [&value](const field& each) {
        std::int64_t whole = 0;
        switch (each.id) {
            case value_counter_id:
                return take_number(each, value.id);
            case value_whole:
                if (!take_number(each, whole)) {
                    return false;
                }
                value.value = static_cast<double>(whole);
                return true;
            case value_double:
                return take_double(each, value.value);
            default:
                return true;
        }
    });
}

// What a packet says of GPU counters. One object serves all packets, and keeps its memory.
struct packet_content {
    std::uint32_t sequence;
    bool has_event;
    bool has_counters;
    std::vector<counter_description> counters;
    counter_sample sample;
    std::string_view compressed;

    void clear() {
        sequence = 0;
        has_event = has_counters = false;
        counters.clear();
        sample.timestamp = 0;
        sample.values.clear();
        compressed = {};
    }
};

bool read_event(std::string_view bytes, packet_content& content) {
    content.has_event = true;
    return for_each_field(bytes, [&content](const field& each) {
        switch (each.id) {
            case event_descriptor:
                content.has_counters = true;
                return each.is_bytes() && read_counter_descriptor(each.bytes, content.counters);
            case event_counters:
                return each.is_bytes() &&
                       read_value(each.bytes, content.sample.values.emplace_back(counter_value{0, 0}));
            default:
                return true;
        }
    });
}

bool read_packet(std::string_view bytes, packet_content& content) {
    content.clear();
    return for_each_field(bytes, [&content](const field& each) {
        switch (each.id) {
            case packet_timestamp:
                return take_number(each, content.sample.timestamp);
            case packet_sequence:
                return take_number(each, content.sequence);
            case packet_gpu_counter_event:
                return each.is_bytes() && read_event(each.bytes, content);
            case packet_compressed_packets:
                content.compressed = each.is_bytes() ? each.bytes : std::string_view{};
                return each.is_bytes();
            case packet_ftrace_events:
                // What the service adds stands last. What looks like this field behind it is the next packet,
                // swallowed by a damaged length.
                return content.sequence == 0;
            default:
                return true;
        }
    });
}

struct packet_frame {
    std::size_t header = 0;  // 0 when no packet begins here
    std::size_t size = 0;

    std::size_t total() const { return header + size; }
};

packet_frame read_frame(std::string_view bytes) {
    if (bytes.empty() || bytes[0] != packet_tag) {
        return {};
    }
    try {
        const char* next = bytes.data() + 1;
        const std::uint64_t size = protozero::decode_varint(&next, bytes.data() + bytes.size());
        if (size <= max_packet) {
            return {static_cast<std::size_t>(next - bytes.data()), static_cast<std::size_t>(size)};
        }
    } catch (const protozero::exception&) {  // no length stands here
    }
    return {};
}

// The part of a file that is in memory.
class file_window {
public:
    explicit file_window(std::istream& file) : file_(file) {}

    // The bytes from the position on: at least so many unless the file ends before.
    std::string_view at_least(std::size_t wanted) {
        if (end_ - begin_ < wanted) {
            fill(wanted);
        }
        return {buffer_.data() + begin_, end_ - begin_};
    }
    void advance(std::size_t count) {
        begin_ += count;
        position_ += count;
    }
    std::uint64_t position() const { return position_; }

private:
    void fill(std::size_t wanted) {
        std::copy(buffer_.begin() + static_cast<std::ptrdiff_t>(begin_),
                  buffer_.begin() + static_cast<std::ptrdiff_t>(end_), buffer_.begin());
        end_ -= begin_;
        begin_ = 0;
        // A claimed length is believed piece by piece, so that it takes no more memory than the file has.
        while (end_ < wanted && file_) {
            buffer_.resize(std::max(buffer_.size(), end_ + piece_size));
            file_.read(buffer_.data() + end_, static_cast<std::streamsize>(buffer_.size() - end_));
            end_ += static_cast<std::size_t>(file_.gcount());
        }
    }

    std::istream& file_;
    std::vector<char> buffer_;
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
    std::uint64_t position_ = 0;  // of begin_ in the file
};

#ifdef COUNTERFEED_ZLIB
// Nothing when the bytes are damaged or become more than a packet may hold.
std::optional<std::string> decompress(std::string_view bytes) {
    z_stream stream{};
    if (inflateInit(&stream) != Z_OK) {
        return std::nullopt;
    }
    std::string result;
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
    stream.avail_in = static_cast<uInt>(bytes.size());
    int status = Z_OK;
    while (status == Z_OK && result.size() < max_packet) {
        const std::size_t done = result.size();
        result.resize(done + piece_size);
        stream.next_out = reinterpret_cast<Bytef*>(result.data() + done);
        stream.avail_out = static_cast<uInt>(piece_size);
        status = inflate(&stream, Z_NO_FLUSH);
        result.resize(result.size() - stream.avail_out);
    }
    inflateEnd(&stream);
    return status == Z_STREAM_END ? std::optional(std::move(result)) : std::nullopt;
}
#endif

class trace_reader {
public:
    trace_reader(std::istream& file, trace_listener& listener) : window_(file), listener_(listener) {}

    std::uint64_t read() {
        std::uint64_t next_progress = progress_step;
        while (!window_.at_least(max_header).empty()) {
            if (window_.position() >= next_progress) {
                listener_.on_progress(window_.position());
                next_progress = window_.position() + progress_step;
            }
            read_next();
        }
        listener_.on_progress(window_.position());
        return packet_count_;
    }

private:
    void read_next() {
        const packet_frame frame = read_frame(window_.at_least(max_header));
        const std::size_t total = frame.total();
        const std::uint64_t offset = window_.position();
        // Where the next packet begins if the length of this one is right.
        std::optional<std::uint64_t> next;
        std::string reason;
        if (frame.header == 0) {
            reason = "no packet begins here";
        } else if (const auto bytes = window_.at_least(total + 1); bytes.size() < total) {
            reason = "the file ends inside a packet of " + std::to_string(frame.size) + " bytes";
        } else {
            if (read_packet(bytes.substr(frame.header, frame.size), content_)) {
                const char* fault = deliver(content_, true);
                window_.advance(total);
                if (fault == nullptr) {
                    ++packet_count_;
                } else {
                    listener_.on_unreadable({offset, total, fault});
                }
                return;
            }
            reason = "malformed packet";
            if (bytes.size() == total || bytes[total] == packet_tag) {
                next = offset + total;
            }
        }
        do {
            window_.advance(1);
        } while (!window_.at_least(1).empty() && window_.position() != next && !resumes_here());
        listener_.on_unreadable({offset, window_.position() - offset, reason});
    }

    // Whether a packet begins at the position beyond doubt: whole, well-formed, with the number that the
    // service gives each, and followed by another or by nothing.
    bool resumes_here() {
        if (window_.at_least(1)[0] != packet_tag) {
            return false;
        }
        const packet_frame frame = read_frame(window_.at_least(max_header));
        if (frame.header == 0 || frame.size > max_resumed_packet) {
            return false;
        }
        const auto bytes = window_.at_least(frame.total() + 1);
        return bytes.size() >= frame.total() &&
               (bytes.size() == frame.total() || bytes[frame.total()] == packet_tag) &&
               read_packet(bytes.substr(frame.header, frame.size), content_) && content_.sequence != 0;
    }

    // Gives what is wrong with a packet, or null.
    const char* deliver(packet_content& content, bool may_be_compressed) {
        if (content.has_counters) {
            listener_.on_counters(content.sequence, content.counters);
        }
        if (content.has_event && (!content.has_counters || !content.sample.values.empty())) {
            listener_.on_sample(content.sequence, content.sample);
        }
        if (content.compressed.empty() || !may_be_compressed) {
            return nullptr;
        }
#ifdef COUNTERFEED_ZLIB
        const auto unpacked = decompress(content.compressed);
        std::string_view rest;
        if (!unpacked) {
            return "damaged compressed packets";
        }
        for (rest = *unpacked; !rest.empty();) {
            const packet_frame frame = read_frame(rest);
            if (frame.header == 0 || rest.size() < frame.total() ||
                !read_packet(rest.substr(frame.header, frame.size), content)) {
                return "malformed packet among compressed ones";
            }
            deliver(content, false);
            rest.remove_prefix(frame.total());
        }
        return nullptr;
#else
        return "compressed packets, which this build can't read";
#endif
    }

    file_window window_;
    trace_listener& listener_;
    packet_content content_{};
    std::uint64_t packet_count_ = 0;
};

}  // namespace

std::uint64_t read_trace(std::istream& file, trace_listener& listener) {
    return trace_reader(file, listener).read();
}

std::optional<std::map<std::uint32_t, counter_sequence>> read_counters(const std::string& trace) {
    class collector : public trace_listener {
    public:
        void on_counters(std::uint32_t sequence, const std::vector<counter_description>& counters) override {
            sequences[sequence].counters = counters;
        }
        void on_sample(std::uint32_t sequence, const counter_sample& sample) override {
            sequences[sequence].samples.push_back(sample);
        }

        std::map<std::uint32_t, counter_sequence> sequences;
    } all;
    std::istringstream file(trace);
    return read_trace(file, all) != 0 ? std::optional(std::move(all.sequences)) : std::nullopt;
}

std::optional<std::string> read_file(const char* path) {
    std::ifstream file(path, std::ios::binary);
    file.peek();  // a folder can be opened, and no more
    std::ostringstream bytes;
    bytes << file.rdbuf();
    return file.is_open() && !file.bad() && !bytes.bad() ? std::optional(bytes.str()) : std::nullopt;
}

}  // namespace qel::vexa::report
