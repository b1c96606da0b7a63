// One counter reader as the kernel driver has it: a ring of sample buffers, the requests on the reader's
// descriptor, and the samples that fall due.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <vector>

#include "virtual_gpu/device_model.h"
#include "virtual_gpu/file.h"
#include "virtual_gpu/sample_source.h"

namespace qel::vexa::virtual_gpu {

// What the setup request on the node asks for.
struct reader_setup_record {
    std::uint32_t buffer_count;  // a power of two up to 32
    // The enable bits: bit k of a word stands for the counters 4k to 4k+3 of each block of its class.
    // Counters that are not enabled stay 0.
    std::uint32_t jm_bm;
    std::uint32_t shader_bm;
    std::uint32_t tiler_bm;
    std::uint32_t mmu_l2_bm;
};
static_assert(sizeof(reader_setup_record) == 20);

// Comes with every sample. The short form ends before the cycle counts.
struct sample_metadata {
    std::uint64_t timestamp;  // when the sample was due, in nanoseconds of CLOCK_MONOTONIC_RAW
    std::uint32_t event_id;
    std::uint32_t buffer_idx;
    std::uint64_t cycles_top;
    std::uint64_t cycles_shader;
};
static_assert(sizeof(sample_metadata) == 32 && offsetof(sample_metadata, cycles_top) == 16);
inline constexpr std::size_t short_metadata_size = offsetof(sample_metadata, cycles_top);

// What a sample's event is.
inline constexpr std::uint32_t event_dump = 1;
inline constexpr std::uint32_t event_interval = 2;

// Stands in the long metadata in place of a cycle count that is none of the features.
inline constexpr std::uint64_t unfilled_cycles = 0xbad0'c0de'bad0'c0de;

// cycles_top is what the source says. The shader cores' clock runs slower.
constexpr std::uint64_t shader_cycles(std::uint64_t cycles_top) {
    return cycles_top - cycles_top / 4;
}

// The kind behind the number of an ioctl on a reader.
request_kind reader_kind_of(std::uint32_t number);
// Whether the request takes a number in place of an address.
bool takes_value(request_kind kind);

// Samples are numbered for their source from 0 on, anew after each clear. A number counts only samples that
// found a free buffer.
//
// Not for use by two threads at a time. Times are in nanoseconds of CLOCK_MONOTONIC_RAW.
class counter_reader {
public:
    // The signal is the writing end of a pipe, whose reading end is the process's descriptor: a byte for each
    // filled buffer.
    counter_reader(std::shared_ptr<const gpu_description> gpu, const reader_setup_record& setup, file ring,
                   file signal);
    counter_reader(const counter_reader&) = delete;
    counter_reader& operator=(const counter_reader&) = delete;

    // Answers an ioctl: 0, or a negative error number. The argument is the caller's record, in the caller's
    // memory, or a value. `descriptor` is the process's.
    int answer(std::uint32_t number, void* argument, int descriptor);

    // The bytes of all buffers.
    static std::size_t ring_size(const gpu_description& gpu, const reader_setup_record& setup);
    std::size_t ring_size() const { return sample_size() * buffer_count_; }
    int ring() const { return ring_.descriptor(); }

    // When take_due_samples has something to do next; nothing when not sampling periodically.
    std::optional<std::uint64_t> next_due() const;
    // Fills a buffer for each sample that has fallen due, or counts it as an overrun.
    void take_due_samples(std::uint64_t now);
    void stop() { interval_ = 0; }

    // Overruns since the last call.
    std::uint64_t take_overruns();

    // See machine.h.
    void set_signalling(bool on, int descriptor);
    void signal_once();
    void hang_up();

private:
    struct claim {
        sample_metadata metadata;
        std::size_t size;  // of the form that it was claimed with
    };

    std::size_t sample_size() const { return words_.size() * sizeof(std::uint32_t); }
    bool is_full() const { return filled_.size() + (claimed_ ? 1U : 0U) == buffer_count_; }
    void take_sample(std::uint64_t due, std::uint32_t event_id);
    int dump();
    int clear();
    int set_interval(std::uint64_t interval);
    int get_buffer(void* argument, std::size_t size, int descriptor);
    int put_buffer(const void* argument, std::size_t size);
    // Takes away what the enable bits leave out.
    void leave_enabled();

    const std::shared_ptr<const gpu_description> gpu_;
    const sample_layout layout_;
    const std::array<std::uint32_t, 4> enabled_;  // by class of block
    const std::size_t buffer_count_;
    const std::unique_ptr<sample_source> source_;
    file ring_;
    file signal_;
    bool signals_ = true;

    std::vector<std::uint32_t> words_;
    std::deque<sample_metadata> filled_;  // oldest first
    std::optional<claim> claimed_;
    std::uint32_t next_buffer_ = 0;
    std::uint64_t next_number_ = 0;
    std::uint64_t counted_from_;  // where the next sample's time begins
    std::uint64_t interval_ = 0;  // 0: not periodic
    std::uint64_t next_due_ = 0;
    std::uint64_t lateness_ = 0;  // of the last periodic sample
    std::uint64_t overruns_ = 0;
};

// The source that the description asks for.
std::unique_ptr<sample_source> make_source(const gpu_description& gpu);

}  // namespace qel::vexa::virtual_gpu
