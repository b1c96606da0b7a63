#include "virtual_gpu/counter_reader.h"

#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>
#include <limits>
#include <span>
#include <utility>

#include "virtual_gpu/clock.h"
#include "virtual_gpu/workload.h"

namespace qel::vexa::virtual_gpu {

namespace {

// The requests of the reader's descriptor.
enum request_number : std::uint32_t {
    number_get_hardware_version = 0x8004be00,
    number_get_sample_size = 0x8004be01,
    number_dump = 0x4004be10,
    number_clear = 0x4004be11,
    number_get_buffer = 0x8010be20,
    number_get_buffer_long = 0x8020be20,
    number_put_buffer = 0x4010be21,
    number_put_buffer_long = 0x4020be21,
    number_set_interval = 0x4004be30,
    number_get_api_version = 0x4004beff,
    number_get_api_version_with_features = 0x4008beff,
};

// How far a late sampling thread may lag behind, in nanoseconds, before samples get lost by it.
constexpr std::uint64_t patience = nanoseconds_per_second / 4;

// Where a block's header has its enable bits.
constexpr std::size_t enable_word = 2;
constexpr std::size_t counters_per_enable_bit = 4;

enum block_class : std::size_t { job_manager, tiler, memory_system, shader_core };

int give_word(void* argument, std::uint32_t word) {
    if (argument == nullptr) {
        return -EFAULT;
    }
    std::memcpy(argument, &word, sizeof word);
    return 0;
}

}  // namespace

request_kind reader_kind_of(std::uint32_t number) {
    switch (number) {
        case number_get_hardware_version:
            return request_kind::get_hardware_version;
        case number_get_sample_size:
            return request_kind::get_sample_size;
        case number_dump:
            return request_kind::dump;
        case number_clear:
            return request_kind::clear;
        case number_get_buffer:
        case number_get_buffer_long:
            return request_kind::get_buffer;
        case number_put_buffer:
        case number_put_buffer_long:
            return request_kind::put_buffer;
        case number_set_interval:
            return request_kind::set_interval;
        case number_get_api_version:
            return request_kind::get_api_version;
        case number_get_api_version_with_features:
            return request_kind::get_api_version_with_features;
        default:
            return request_kind::unknown;
    }
}

bool takes_value(request_kind kind) {
    return kind == request_kind::dump || kind == request_kind::clear || kind == request_kind::set_interval;
}

std::unique_ptr<sample_source> make_source(const gpu_description& gpu) {
    if (gpu.own_source) {
        return gpu.own_source(gpu);
    }
    if (gpu.source == source_kind::workload) {
        return std::make_unique<workload_source>(gpu);
    }
    return std::make_unique<formula_source>();
}

counter_reader::counter_reader(std::shared_ptr<const gpu_description> gpu, const reader_setup_record& setup,
                               file ring, file signal)
    : gpu_(std::move(gpu)),
      layout_(*gpu_),
      enabled_{setup.jm_bm, setup.tiler_bm, setup.mmu_l2_bm, setup.shader_bm},
      buffer_count_(setup.buffer_count),
      source_(make_source(*gpu_)),
      ring_(std::move(ring)),
      signal_(std::move(signal)),
      words_(layout_.word_count()),
      counted_from_(raw_clock()) {}

std::size_t counter_reader::ring_size(const gpu_description& gpu, const reader_setup_record& setup) {
    return sample_layout(gpu).word_count() * sizeof(std::uint32_t) * setup.buffer_count;
}

int counter_reader::answer(std::uint32_t number, void* argument, int descriptor) {
    const std::uint64_t value = reinterpret_cast<std::uintptr_t>(argument);
    switch (number) {
        case number_get_hardware_version:
            return give_word(argument, gpu_->counter_hardware_version);
        case number_get_sample_size:
            return give_word(argument, static_cast<std::uint32_t>(sample_size()));
        case number_dump:
            return value == 0 ? dump() : -EINVAL;
        case number_clear:
            return value == 0 ? clear() : -EINVAL;
        case number_set_interval:
            return set_interval(value);
        case number_get_buffer:
            return get_buffer(argument, short_metadata_size, descriptor);
        case number_put_buffer:
            return put_buffer(argument, short_metadata_size);
        case number_get_api_version:
            return give_word(argument, gpu_->reader_api_version);
        default:
            break;
    }
    if (gpu_->is_legacy) {
        return -ENOTTY;
    }
    switch (number) {
        case number_get_buffer_long:
            return get_buffer(argument, sizeof(sample_metadata), descriptor);
        case number_put_buffer_long:
            return put_buffer(argument, sizeof(sample_metadata));
        case number_get_api_version_with_features: {
            const int result = give_word(argument, gpu_->reader_api_version);
            return result != 0 ? result
                               : give_word(static_cast<std::uint32_t*>(argument) + 1, gpu_->reader_features);
        }
        default:
            return -ENOTTY;
    }
}

int counter_reader::dump() {
    if (is_full()) {
        ++overruns_;
        return -EBUSY;
    }
    take_sample(raw_clock(), event_dump);
    return 0;
}

int counter_reader::clear() {
    counted_from_ = raw_clock();
    next_number_ = 0;
    return 0;
}

int counter_reader::set_interval(std::uint64_t interval) {
    if (interval > std::numeric_limits<std::uint32_t>::max()) {
        return -EINVAL;
    }
    interval_ = signal_.is_open() ? interval : 0;
    next_due_ = raw_clock() + interval;
    lateness_ = 0;
    return 0;
}

// One buffer at a time can be claimed.
int counter_reader::get_buffer(void* argument, std::size_t size, int descriptor) {
    if (argument == nullptr) {
        return -EFAULT;
    }
    if (claimed_) {
        return -EBUSY;
    }
    // Without a byte there, nothing changes.
    char byte = 0;
    [[maybe_unused]] const ssize_t taken = ::read(descriptor, &byte, sizeof byte);
    if (filled_.empty()) {
        return -EAGAIN;
    }
    claimed_ = {.metadata = filled_.front(), .size = size};
    filled_.pop_front();
    std::memcpy(argument, &claimed_->metadata, size);
    return 0;
}

// The record must be the one that was given out, in the same form. A cycle count may have been set to 0.
int counter_reader::put_buffer(const void* argument, std::size_t size) {
    if (argument == nullptr) {
        return -EFAULT;
    }
    if (!claimed_ || claimed_->size != size) {
        return -EINVAL;
    }
    const sample_metadata& given = claimed_->metadata;
    sample_metadata back = given;
    std::memcpy(&back, argument, size);
    const auto is_kept = [](std::uint64_t cycles, std::uint64_t before) {
        return cycles == before || cycles == 0;
    };
    if (std::memcmp(&back, &given, short_metadata_size) != 0 || !is_kept(back.cycles_top, given.cycles_top) ||
        !is_kept(back.cycles_shader, given.cycles_shader)) {
        return -EINVAL;
    }
    claimed_.reset();
    // The sampling thread may have waited for this buffer.
    take_due_samples(raw_clock());
    return 0;
}

std::optional<std::uint64_t> counter_reader::next_due() const {
    if (interval_ == 0) {
        return std::nullopt;
    }
    if (!is_full()) {
        return next_due_;
    }
    return gpu_->loses_samples ? next_due_ + lateness_ : std::numeric_limits<std::uint64_t>::max();
}

// A sample whose time comes while all buffers are taken is lost: its counts go into the next one. When the
// thread that calls this was late, and filled the last buffer later than it should have, the next samples get
// as much more time, lest a machine with other things to do loses samples of a process that keeps up.
void counter_reader::take_due_samples(std::uint64_t now) {
    while (interval_ != 0 && next_due_ <= now && !is_full()) {
        const std::uint64_t due = next_due_;
        next_due_ += interval_;
        take_sample(due, event_interval);
        lateness_ = std::min(now - due, patience);
    }
    if (interval_ != 0 && next_due_ + lateness_ <= now && is_full() && gpu_->loses_samples) {
        const std::uint64_t lost = (now - lateness_ - next_due_) / interval_ + 1;
        overruns_ += lost;
        next_due_ += lost * interval_;
    }
}

// There must be a free buffer.
void counter_reader::take_sample(std::uint64_t due, std::uint32_t event_id) {
    const sample_interval interval{
        .number = next_number_++, .begin = std::exchange(counted_from_, due), .end = due};
    const std::uint64_t cycles = source_->take(interval, words_);
    leave_enabled();
    const auto has = [this](std::uint32_t feature) { return (gpu_->reader_features & feature) != 0; };
    const std::uint64_t top = gpu_->has_cycles ? cycles : 0;
    const sample_metadata metadata{
        .timestamp = due,
        .event_id = event_id,
        .buffer_idx = next_buffer_,
        .cycles_top = has(feature_top_cycles) ? top : unfilled_cycles,
        .cycles_shader = has(feature_shader_cycles) ? shader_cycles(top) : unfilled_cycles,
    };
    next_buffer_ = static_cast<std::uint32_t>((next_buffer_ + 1) % buffer_count_);
    // Into the file and not through a mapping of it: the process's mappings show it all the same.
    [[maybe_unused]] const ssize_t written =
        ::pwrite(ring_.descriptor(), words_.data(), sample_size(),
                 static_cast<off_t>(metadata.buffer_idx * sample_size()));
    filled_.push_back(metadata);
    if (signals_) {
        signal_once();
    }
}

void counter_reader::leave_enabled() {
    for (std::size_t block = 0; block < layout_.block_count(); ++block) {
        const std::size_t kind = block < memory_system                ? block
                                 : block < layout_.first_core_block() ? std::size_t{memory_system}
                                                                      : std::size_t{shader_core};
        const std::span words = std::span(words_).subspan(block * words_per_block, words_per_block);
        words[enable_word] = enabled_[kind];
        for (std::size_t i = header_words; i < words.size(); ++i) {
            words[i] *= enabled_[kind] >> (i / counters_per_enable_bit) & 1;
        }
    }
}

std::uint64_t counter_reader::take_overruns() {
    return std::exchange(overruns_, 0);
}

void counter_reader::set_signalling(bool on, int descriptor) {
    if (std::exchange(signals_, on) == on) {
        return;
    }
    char byte = 0;
    while (::read(descriptor, &byte, sizeof byte) > 0) {
    }
    for (std::size_t i = 0; on && i < filled_.size(); ++i) {
        signal_once();
    }
}

void counter_reader::signal_once() {
    const char byte = 0;
    if (signal_.is_open() && ::write(signal_.descriptor(), &byte, sizeof byte) < 0 && errno == EPIPE) {
        hang_up();  // the descriptor was closed behind the machine's back
    }
}

void counter_reader::hang_up() {
    stop();
    signal_.close();
}

}  // namespace qel::vexa::virtual_gpu
