#include "counterfeed/src/periodic_hwc_reader.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <limits>

namespace qel::vexa::counterfeed {

namespace {

constexpr std::chrono::nanoseconds min_period{1};
constexpr std::chrono::nanoseconds max_period{std::numeric_limits<std::uint32_t>::max()};
constexpr std::uint32_t buffer_count = 32;
// Every counter of every block, whatever the session wants.
constexpr std::uint32_t all_counters = 0xffff'ffff;
constexpr std::int32_t no_timeout = -1;
// More words than a 32-bit process can hold.
constexpr std::uint64_t word_count_limit = 0x4000'0000;

// Values of 64 bits as words; what doesn't fit becomes the largest word.
std::uint32_t narrow(std::uint64_t value) {
    return static_cast<std::uint32_t>(
        std::min<std::uint64_t>(value, std::numeric_limits<std::uint32_t>::max()));
}

}  // namespace

periodic_hwc_reader::periodic_hwc_reader(std::chrono::nanoseconds period, std::error_code& ec)
    : sampling_period(period) {
    if (period < min_period || period > max_period) {
        ec = std::error_code(EINVAL, std::generic_category());
        return;
    }
    if (base_context_init(&context, BASE_CREATE_FLAGS) == 0) {
        return;
    }
    base_hwcnt_reader* new_reader = nullptr;
    if (base_hwcnt_reader_init(&new_reader, &context, buffer_count, all_counters, all_counters, all_counters,
                               all_counters,
                               static_cast<std::uint32_t>(sampling_period.count())) != BASE_SUCCESS) {
        base_context_term(&context);
        return;
    }
    hwcnt_reader.reset(new_reader);
}

periodic_hwc_reader::~periodic_hwc_reader() {
    if (hwcnt_reader) {
        hwcnt_reader.reset();
        base_context_term(&context);
    }
}

bool periodic_hwc_reader::is_initialized() const {
    return hwcnt_reader != nullptr;
}

std::uint32_t periodic_hwc_reader::get_hwver() const {
    return hwcnt_reader ? base_hwcnt_reader_get_hwver(hwcnt_reader.get()) : 0;
}

bool periodic_hwc_reader::begin_sampling_periodic() {
    if (!hwcnt_reader || sampling_started) {
        return false;
    }
    if (base_hwcnt_reader_clear(hwcnt_reader.get()) != BASE_SUCCESS ||
        base_hwcnt_reader_sample_periodic(hwcnt_reader.get(), BASE_HWCNT_SAMPLING_START) != BASE_SUCCESS) {
        return false;
    }
    sampling_started = true;
    return true;
}

bool periodic_hwc_reader::wait_for_sample(base_hwcnt_sample& sample) const {
    while (true) {
        sample = {};
        switch (base_hwcnt_reader_get_buffer(hwcnt_reader.get(), &sample, no_timeout)) {
            case BASE_HWCNT_SAMPLE_READY:
                return true;
            case BASE_HWCNT_INTERRUPTED:
            case BASE_HWCNT_FAILURE:
                return false;
            case BASE_HWCNT_TIMEOUT:
                break;
        }
    }
}

// The words in the kernel's buffer, where the blocks lie back to back, or narrowed words in the same order.
const std::uint32_t* periodic_hwc_reader::words_of(const base_hwcnt_sample& sample) {
    if (sample.data_is_u64 == 0) {
        return static_cast<const std::uint32_t*>(sample.blocks[0]);
    }
    const std::uint64_t word_count = std::uint64_t{sample.num_blocks} * sample.values_per_block;
    if (word_count >= word_count_limit) {
        std::abort();
    }
    // What the callback may read is there, whatever the sample says of itself.
    if (const std::uint64_t size = std::max(word_count, words_per_sample()); size > converted_sample.size()) {
        // Made anew, for what it held is of no use, and a vector that grows takes more than it is told to.
        converted_sample = std::vector<std::uint32_t>(static_cast<std::size_t>(size));
    }
    std::uint32_t* word = converted_sample.data();
    for (std::uint32_t i = 0; i < std::min(sample.num_blocks, BASE_HWCNT_SAMPLE_BLOCKS); ++i) {
        const auto* values = static_cast<const std::uint64_t*>(sample.blocks[i]);
        word = std::transform(values, values + sample.values_per_block, word, narrow);
    }
    return converted_sample.data();
}

void periodic_hwc_reader::process_buffers_until_interrupted(sample_callback callback) {
    if (!sampling_started) {
        return;
    }
    base_hwcnt_sample sample;
    if (!wait_for_sample(sample)) {
        return;
    }
    std::uint64_t previous = sample.timestamp;
    base_hwcnt_reader_put_buffer(hwcnt_reader.get());
    while (wait_for_sample(sample)) {
        if (!callback) {
            std::abort();
        }
        callback(sample.timestamp, sample.timestamp - previous, sample.cycles_top, words_of(sample));
        // A failure leaves the buffer claimed, and the next wait ends the loop.
        base_hwcnt_reader_put_buffer(hwcnt_reader.get());
        previous = sample.timestamp;
    }
}

void periodic_hwc_reader::interrupt() {
    if (hwcnt_reader) {
        base_hwcnt_reader_interrupt(hwcnt_reader.get());
    }
}

std::uint64_t periodic_hwc_reader::words_per_sample() const {
    if (!hwcnt_reader) {
        return 0;
    }
    const base_hwcnt_reader_operations& backend = hwcnt_reader->backend;
    const std::size_t value_size =
        backend.data_is_u64(hwcnt_reader->state) != 0 ? sizeof(std::uint64_t) : sizeof(std::uint32_t);
    const std::size_t sample_size = backend.get_sample_size(hwcnt_reader->state);
    // Buffers with a part of a value at their end would have the values of the next ones at odd addresses,
    // where nothing is read.
    return sample_size % value_size == 0 ? sample_size / value_size : 0;
}

}  // namespace qel::vexa::counterfeed
