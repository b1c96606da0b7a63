#include "workstation/report/trace_file.h"

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
#include <utility>

#include "workstation/protocol/messages.h"
#include "workstation/report/compression.h"

namespace qel::vexa::report {

namespace {

using protocol::field;
using protocol::for_each_field;
using protocol::take_number;

enum packet_field : std::uint32_t {
    packet_ftrace_events = 1,
    packet_clock_snapshot = 6,
    packet_timestamp = 8,
    packet_sequence = 10,
    packet_interned_data = 12,
    packet_sequence_flags = 13,
    packet_trace_config = 33,
    packet_state_cleared = 41,
    packet_compressed_packets = 50,
    packet_gpu_counter_event = 52,
    packet_buffer_event = 57,
    packet_clock = 58,
    packet_frame_event = 76,
    packet_gpu_info = 128,
    packet_zstd_packets = 133,
};
enum event_field : std::uint32_t {
    event_descriptor = 1,
    event_counters = 2,
    event_gpu = 3,
    event_descriptor_iid = 4,
};
enum value_field : std::uint32_t { value_counter_id = 1, value_whole = 2, value_double = 3 };
enum interned_field : std::uint32_t { interned_descriptors = 47 };
enum interned_descriptor_field : std::uint32_t {
    interned_iid = 1,
    interned_descriptor = 2,
    interned_gpu = 3,
};
enum gpu_info_field : std::uint32_t { gpu_info_gpus = 1 };
enum gpu_field : std::uint32_t { gpu_name = 1 };

constexpr std::uint32_t flag_state_cleared = 1;

// A trace is nothing but packets, each a tag, a length and so many bytes.
constexpr std::uint32_t default_clock = 6;  // CLOCK_BOOTTIME
constexpr char packet_tag = 1 << 3 | 2;
constexpr std::size_t max_header = 11;
// Far above what the service lets through. A longer packet is a damaged length.
constexpr std::size_t max_packet = std::size_t{64} << 20;
// A packet at which reading may go on behind a damage: bounds what a search through garbage costs.
constexpr std::size_t max_resumed_packet = std::size_t{1} << 20;
constexpr std::size_t read_piece_size = std::size_t{1} << 20;
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

// A description that packets of the same sequence refer to by its number.
struct interned_counters {
    std::uint64_t iid = 0;
    std::optional<std::uint32_t> gpu;
    std::vector<counter_description> counters;
};

// What a packet says of GPU counters. One object serves all packets, and keeps its memory.
struct packet_content {
    std::uint32_t sequence;
    bool has_event;
    bool has_counters;
    bool clears_state;
    std::vector<counter_description> counters;
    std::vector<interned_counters> interned;
    std::optional<std::uint64_t> iid;
    std::optional<std::uint32_t> gpu;
    counter_sample sample;
    std::vector<std::string> gpus;
    std::string_view config;
    std::string_view clocks;
    std::string_view frame_event;
    std::string_view buffer_event;
    std::uint32_t clock;  // that the sample's time is on
    std::string_view compressed;
    bool is_zstd;

    void clear() {
        sequence = 0;
        has_event = has_counters = clears_state = is_zstd = false;
        counters.clear();
        interned.clear();
        iid.reset();
        gpu.reset();
        sample.timestamp = 0;
        sample.values.clear();
        gpus.clear();
        config = compressed = clocks = frame_event = buffer_event = {};
        clock = default_clock;
    }
};

bool take_optional(const field& each, auto& number) {
    return take_number(each, number.emplace());
}

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
            case event_gpu:
                return take_optional(each, content.gpu);
            case event_descriptor_iid:
                return take_optional(each, content.iid);
            default:
                return true;
        }
    });
}

bool read_interned(std::string_view bytes, packet_content& content) {
    return for_each_field(bytes, [&content](const field& each) {
        if (each.id != interned_descriptors) {
            return true;
        }
        interned_counters& one = content.interned.emplace_back();
        return each.is_bytes() && for_each_field(each.bytes, [&one](const field& part) {
                   switch (part.id) {
                       case interned_iid:
                           return take_number(part, one.iid);
                       case interned_descriptor:
                           return part.is_bytes() && read_counter_descriptor(part.bytes, one.counters);
                       case interned_gpu:
                           return take_optional(part, one.gpu);
                       default:
                           return true;
                   }
               });
    });
}

bool read_gpu_info(std::string_view bytes, packet_content& content) {
    return for_each_field(bytes, [&content](const field& each) {
        if (each.id != gpu_info_gpus) {
            return true;
        }
        std::string& name = content.gpus.emplace_back();
        return each.is_bytes() && for_each_field(each.bytes, [&name](const field& part) {
                   return part.id != gpu_name || take_text(part, name);
               });
    });
}

bool read_packet(std::string_view bytes, packet_content& content) {
    content.clear();
    return for_each_field(bytes, [&content](const field& each) {
        std::uint64_t number = 0;
        switch (each.id) {
            case packet_timestamp:
                return take_number(each, content.sample.timestamp);
            case packet_sequence:
                return take_number(each, content.sequence);
            case packet_interned_data:
                return each.is_bytes() && read_interned(each.bytes, content);
            case packet_sequence_flags:
                content.clears_state = content.clears_state || (each.number & flag_state_cleared) != 0;
                return take_number(each, number);
            case packet_state_cleared:
                content.clears_state = content.clears_state || each.number != 0;
                return take_number(each, number);
            case packet_gpu_counter_event:
                return each.is_bytes() && read_event(each.bytes, content);
            case packet_gpu_info:
                return each.is_bytes() && read_gpu_info(each.bytes, content);
            case packet_trace_config:
                content.config = each.bytes;
                return each.is_bytes();
            case packet_compressed_packets:
            case packet_zstd_packets:
                content.compressed = each.bytes;
                content.is_zstd = each.id == packet_zstd_packets;
                return each.is_bytes();
            case packet_clock_snapshot:
                content.clocks = each.bytes;
                return each.is_bytes();
            case packet_clock:
                return take_number(each, content.clock);
            case packet_frame_event:
                content.frame_event = each.bytes;
                return each.is_bytes();
            case packet_buffer_event:
                content.buffer_event = each.bytes;
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
    explicit file_window(std::istream& file) : source_(file) {}

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
    const byte_source& source() const { return source_; }

private:
    void fill(std::size_t wanted) {
        std::copy(buffer_.begin() + static_cast<std::ptrdiff_t>(begin_),
                  buffer_.begin() + static_cast<std::ptrdiff_t>(end_), buffer_.begin());
        end_ -= begin_;
        begin_ = 0;
        // A claimed length is believed piece by piece, so that it takes no more memory than the file has.
        for (std::size_t count = 1; end_ < wanted && count != 0; end_ += count) {
            buffer_.resize(std::max(buffer_.size(), end_ + read_piece_size));
            count = source_.read(buffer_.data() + end_, buffer_.size() - end_);
        }
    }

    byte_source source_;
    std::vector<char> buffer_;
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
    std::uint64_t position_ = 0;  // of begin_ in the file
};

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
        if (window_.source().fault() != nullptr) {
            listener_.on_unreadable({window_.position(), 0, window_.source().fault()});
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
        deliver_counters(content);
        if (!content.gpus.empty()) {
            listener_.on_gpus(content.gpus);
        }
        if (!content.config.empty()) {
            listener_.on_config(content.config);
        }
        if (!content.clocks.empty()) {
            listener_.on_clocks(content.clocks);
        }
        if (!content.frame_event.empty()) {
            listener_.on_frame_event(content.sample.timestamp, content.clock, content.frame_event);
        }
        if (!content.buffer_event.empty()) {
            listener_.on_buffer_event(content.sample.timestamp, content.clock, content.buffer_event);
        }
        if (content.compressed.empty() || !may_be_compressed) {
            return nullptr;
        }
        const packet_compression format =
            content.is_zstd ? packet_compression::zstd : packet_compression::zlib;
        const char* const fault = decompress(content.compressed, format, max_packet, unpacked_);
        if (fault != nullptr) {
            return fault;
        }
        for (std::string_view rest = unpacked_; !rest.empty();) {
            const packet_frame frame = read_frame(rest);
            if (frame.header == 0 || rest.size() < frame.total() ||
                !read_packet(rest.substr(frame.header, frame.size), content)) {
                return "malformed packet among compressed ones";
            }
            deliver(content, false);
            rest.remove_prefix(frame.total());
        }
        return nullptr;
    }

    // Descriptions stand in the event itself or among the interned ones of its sequence. The GPU's number
    // stands beside either; samples without one are of the GPU that their counters were described for.
    void deliver_counters(packet_content& content) {
        if (!content.has_event && content.interned.empty() && !content.clears_state) {
            return;
        }
        sequence_state& state = sequences_[content.sequence];
        if (content.clears_state) {
            state.interned.clear();
        }
        for (interned_counters& one : content.interned) {
            state.described_by.reset();
            state.interned[one.iid] = std::move(one);
        }
        if (content.iid) {
            const auto found = state.interned.find(*content.iid);
            if (found != state.interned.end()) {
                content.gpu = found->second.gpu ? found->second.gpu : content.gpu;
                // Every sample may say again what describes it.
                if (std::exchange(state.described_by, content.iid) != content.iid) {
                    describe(content.sequence, state, found->second.counters, content.gpu);
                }
            }
        }
        if (content.has_counters) {
            describe(content.sequence, state, content.counters, content.gpu);
        }
        counter_sample& sample = content.sample;
        if (!content.has_event || (sample.values.empty() && (content.has_counters || content.iid))) {
            return;
        }
        const auto gpu_of = [&](std::uint32_t id) {
            const auto found = state.gpus.find(id);
            return content.gpu ? *content.gpu : found != state.gpus.end() ? found->second : 0;
        };
        while (!state.gpus.empty() && !content.gpu && !sample.values.empty()) {
            // Rarely more than one.
            sample.gpu = gpu_of(sample.values.front().id);
            const auto others = std::stable_partition(
                sample.values.begin(), sample.values.end(),
                [&](const counter_value& value) { return gpu_of(value.id) == sample.gpu; });
            std::vector<counter_value> rest(others, sample.values.end());
            sample.values.erase(others, sample.values.end());
            listener_.on_sample(content.sequence, sample);
            sample.values = std::move(rest);
            if (sample.values.empty()) {
                return;
            }
        }
        sample.gpu = content.gpu.value_or(0);
        listener_.on_sample(content.sequence, sample);
    }

    struct sequence_state {
        std::map<std::uint64_t, interned_counters> interned;
        std::optional<std::uint64_t> described_by;
        std::map<std::uint32_t, std::uint32_t> gpus;  // of counters that are of another than the first
    };

    void describe(std::uint32_t sequence, sequence_state& state, std::vector<counter_description> counters,
                  std::optional<std::uint32_t> gpu) {
        for (counter_description& counter : counters) {
            counter.gpu = gpu.value_or(0);
            if (counter.gpu != 0) {
                state.gpus.emplace(counter.id, counter.gpu);
            } else {
                state.gpus.erase(counter.id);
            }
        }
        listener_.on_counters(sequence, counters);
    }

    std::string unpacked_;
    std::map<std::uint32_t, sequence_state> sequences_;
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
