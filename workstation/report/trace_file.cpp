#include "workstation/report/trace_file.h"

#include <perfetto.h>

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
#include <span>
#include <sstream>
#include <string_view>

namespace qel::vexa::report {

namespace {

namespace pbzero = perfetto::protos::pbzero;
using protozero::ConstBytes;
using protozero::Field;
using protozero::ProtoDecoder;
using wire_type = protozero::proto_utils::ProtoWireType;

// A trace is nothing but packets, each a tag, a length and so many bytes.
constexpr std::uint8_t packet_tag = pbzero::Trace::kPacketFieldNumber << 3 | 2;
constexpr std::size_t max_header = 11;
// Far above what the service lets through. A longer packet is a damaged length.
constexpr std::size_t max_packet = std::size_t{64} << 20;
// A packet at which reading may go on behind a damage: bounds what a search through garbage costs.
constexpr std::size_t max_resumed_packet = std::size_t{1} << 20;
constexpr std::size_t piece_size = std::size_t{1} << 20;
constexpr std::uint64_t progress_step = std::uint64_t{4} << 20;

std::string unit_words(const std::vector<std::uint32_t>& units) {
    static const std::map<std::uint32_t, const char*> words{{7, "byte"},      {26, "pixel"},
                                                            {37, "percent"},  {38, "primitive"},
                                                            {39, "fragment"}, {40, "instruction"}};
    std::string result;
    for (const std::uint32_t unit : units) {
        if (unit == 0) {
            continue;
        }
        const auto word = words.find(unit);
        result += (result.empty() ? "" : " ") +
                  (word != words.end() ? std::string(word->second) : "unit " + std::to_string(unit));
    }
    return result;
}

// The length of the character at the start of a text; 0 when it is not valid or a control character.
std::size_t character_length(std::string_view text) {
    const auto byte = [text](std::size_t i) {
        return i < text.size() ? static_cast<unsigned>(static_cast<unsigned char>(text[i])) : 0U;
    };
    const unsigned first = byte(0);
    if (first < 0x80) {
        return first >= 0x20 && first != 0x7f ? 1 : 0;
    }
    const std::size_t length = first < 0xc0 ? 0 : first < 0xe0 ? 2 : first < 0xf0 ? 3 : first < 0xf8 ? 4 : 0;
    if (length == 0) {
        return 0;
    }
    std::uint32_t code = first & (0xffU >> (length + 1));
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xc0U) != 0x80) {
            return 0;
        }
        code = code << 6 | (byte(i) & 0x3fU);
    }
    constexpr std::uint32_t least[] = {0, 0, 0xa0, 0x800, 0x10000};  // up to 0x9f there are controls
    const bool is_surrogate = code >= 0xd800 && code < 0xe000;
    return code < least[length] || code > 0x10ffff || is_surrogate ? 0 : length;
}

// Texts come from the file and go to terminals and pages: nothing in them may act there.
std::string clean_text(Field field) {
    std::string result;
    std::string_view text(reinterpret_cast<const char*>(field.data()), field.size());
    while (!text.empty()) {
        const std::size_t length = character_length(text);
        result += length != 0 ? text.substr(0, length) : text[0] == '\n' ? " " : "\xef\xbf\xbd";
        text.remove_prefix(std::max<std::size_t>(length, 1));
    }
    return result;
}

// Calls take(field) for each field of a message until that gives false. False when it did or when the message
// is malformed.
template <typename Take>
bool for_each_field(ConstBytes message, Take take) {
    ProtoDecoder decoder(message.data, message.size);
    for (Field field = decoder.ReadField(); field.valid(); field = decoder.ReadField()) {
        if (!take(field)) {
            return false;
        }
    }
    return decoder.bytes_left() == 0;
}

bool is_bytes(const Field& field) {
    return field.type() == wire_type::kLengthDelimited;
}

// Takes a field's value; false when it is not of the type that the protocol gives it.
template <typename Number>
bool take_number(const Field& field, Number& number) {
    const bool is_number = field.type() == wire_type::kVarInt;
    if (is_number) {
        number = static_cast<Number>(field.as_uint64());
    }
    return is_number;
}
bool take_text(const Field& field, std::string& text) {
    if (is_bytes(field)) {
        text = clean_text(field);
    }
    return is_bytes(field);
}

bool read_spec(ConstBytes bytes, counter_description& counter) {
    using spec = pbzero::GpuCounterDescriptor_GpuCounterSpec;
    return for_each_field(bytes, [&counter](const Field& field) {
        switch (field.id()) {
            case spec::kCounterIdFieldNumber:
                return take_number(field, counter.id);
            case spec::kNameFieldNumber:
                return take_text(field, counter.name);
            case spec::kDescriptionFieldNumber:
                return take_text(field, counter.description);
            case spec::kNumeratorUnitsFieldNumber:
                return take_number(field, counter.numerator_units.emplace_back());
            case spec::kDenominatorUnitsFieldNumber:
                return take_number(field, counter.denominator_units.emplace_back());
            case spec::kSelectByDefaultFieldNumber:
                return take_number(field, counter.select_by_default);
            default:
                return true;
        }
    });
}

bool read_descriptor(ConstBytes bytes, std::vector<counter_description>& counters) {
    return for_each_field(bytes, [&counters](const Field& field) {
        return field.id() != pbzero::GpuCounterDescriptor::kSpecsFieldNumber ||
               (is_bytes(field) && read_spec(field.as_bytes(), counters.emplace_back()));
    });
}

bool read_value(ConstBytes bytes, counter_value& value) {
    using counter = pbzero::GpuCounterEvent_GpuCounter;
    return for_each_field(bytes, [&value](const Field& field) {
        std::int64_t whole = 0;
        switch (field.id()) {
            case counter::kCounterIdFieldNumber:
                return take_number(field, value.id);
            case counter::kIntValueFieldNumber:
                if (!take_number(field, whole)) {
                    return false;
                }
                value.value = static_cast<double>(whole);
                return true;
            case counter::kDoubleValueFieldNumber:
                if (field.type() != wire_type::kFixed64) {
                    return false;
                }
                value.value = field.as_double();
                return true;
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
    ConstBytes compressed;

    void clear() {
        sequence = 0;
        has_event = has_counters = false;
        counters.clear();
        sample.timestamp = 0;
        sample.values.clear();
        compressed = {};
    }
};

bool read_event(ConstBytes bytes, packet_content& content) {
    content.has_event = true;
    return for_each_field(bytes, [&content](const Field& field) {
        switch (field.id()) {
            case pbzero::GpuCounterEvent::kCounterDescriptorFieldNumber:
                content.has_counters = true;
                return is_bytes(field) && read_descriptor(field.as_bytes(), content.counters);
            case pbzero::GpuCounterEvent::kCountersFieldNumber:
                return is_bytes(field) &&
                       read_value(field.as_bytes(), content.sample.values.emplace_back(counter_value{0, 0}));
            default:
                return true;
        }
    });
}

bool read_packet(ConstBytes bytes, packet_content& content) {
    content.clear();
    return for_each_field(bytes, [&content](const Field& field) {
        switch (field.id()) {
            case pbzero::TracePacket::kTimestampFieldNumber:
                return take_number(field, content.sample.timestamp);
            case pbzero::TracePacket::kTrustedPacketSequenceIdFieldNumber:
                return take_number(field, content.sequence);
            case pbzero::TracePacket::kGpuCounterEventFieldNumber:
                return is_bytes(field) && read_event(field.as_bytes(), content);
            case pbzero::TracePacket::kCompressedPacketsFieldNumber:
                content.compressed = is_bytes(field) ? field.as_bytes() : ConstBytes{};
                return is_bytes(field);
            case pbzero::TracePacket::kFtraceEventsFieldNumber:
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

packet_frame read_frame(std::span<const std::uint8_t> bytes) {
    if (bytes.empty() || bytes[0] != packet_tag) {
        return {};
    }
    const std::uint8_t* const start = bytes.data() + 1;
    std::uint64_t size = 0;
    const std::uint8_t* const next =
        protozero::proto_utils::ParseVarInt(start, bytes.data() + bytes.size(), &size);
    if (next == start || size > max_packet) {
        return {};
    }
    return {static_cast<std::size_t>(next - bytes.data()), static_cast<std::size_t>(size)};
}

// The part of a file that is in memory.
class file_window {
public:
    explicit file_window(std::istream& file) : file_(file) {}

    // The bytes from the position on: at least so many unless the file ends before.
    std::span<const std::uint8_t> at_least(std::size_t wanted) {
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
            file_.read(reinterpret_cast<char*>(buffer_.data() + end_),
                       static_cast<std::streamsize>(buffer_.size() - end_));
            end_ += static_cast<std::size_t>(file_.gcount());
        }
    }

    std::istream& file_;
    std::vector<std::uint8_t> buffer_;
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
    std::uint64_t position_ = 0;  // of begin_ in the file
};

#ifdef COUNTERFEED_ZLIB
// Nothing when the bytes are damaged or become more than a packet may hold.
std::optional<std::vector<std::uint8_t>> decompress(ConstBytes bytes) {
    z_stream stream{};
    if (inflateInit(&stream) != Z_OK) {
        return std::nullopt;
    }
    std::vector<std::uint8_t> result;
    stream.next_in = const_cast<Bytef*>(bytes.data);
    stream.avail_in = static_cast<uInt>(bytes.size);
    int status = Z_OK;
    while (status == Z_OK && result.size() < max_packet) {
        const std::size_t done = result.size();
        result.resize(done + piece_size);
        stream.next_out = result.data() + done;
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
            if (read_packet({bytes.data() + frame.header, frame.size}, content_)) {
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
               read_packet({bytes.data() + frame.header, frame.size}, content_) && content_.sequence != 0;
    }

    // Gives what is wrong with a packet, or null.
    const char* deliver(packet_content& content, bool may_be_compressed) {
        if (content.has_counters) {
            listener_.on_counters(content.sequence, content.counters);
        }
        if (content.has_event && (!content.has_counters || !content.sample.values.empty())) {
            listener_.on_sample(content.sequence, content.sample);
        }
        if (content.compressed.size == 0 || !may_be_compressed) {
            return nullptr;
        }
#ifdef COUNTERFEED_ZLIB
        const auto unpacked = decompress(content.compressed);
        std::span<const std::uint8_t> rest;
        if (!unpacked) {
            return "damaged compressed packets";
        }
        for (rest = *unpacked; !rest.empty();) {
            const packet_frame frame = read_frame(rest);
            if (frame.header == 0 || rest.size() < frame.total() ||
                !read_packet({rest.data() + frame.header, frame.size}, content)) {
                return "malformed packet among compressed ones";
            }
            deliver(content, false);
            rest = rest.subspan(frame.total());
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

std::string counter_description::unit() const {
    const std::string below = unit_words(denominator_units);
    const std::string above = unit_words(numerator_units);
    return below.empty() ? above : above.empty() ? "per " + below : above + "/" + below;
}

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

std::vector<counter_description> read_offered_counters(const std::string& service_state) {
    perfetto::protos::gen::TracingServiceState state;
    std::vector<counter_description> counters;
    if (!state.ParseFromString(service_state)) {
        return counters;
    }
    for (const auto& source : state.data_sources()) {
        if (source.ds_descriptor().name() == "gpu.counters") {
            const std::string& bytes = source.ds_descriptor().gpu_counter_descriptor_raw();
            if (!read_descriptor({reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()},
                                 counters)) {
                counters.clear();
            }
            break;
        }
    }
    return counters;
}

std::optional<std::string> read_file(const char* path) {
    std::ifstream file(path, std::ios::binary);
    file.peek();  // a folder can be opened, and no more
    std::ostringstream bytes;
    bytes << file.rdbuf();
    return file.is_open() && !file.bad() && !bytes.bad() ? std::optional(bytes.str()) : std::nullopt;
}

}  // namespace qel::vexa::report
