// A reader of counter samples that needs no kernel: the virtual GPU plugged in at the product's own seam.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "counterfeed/src/hwc_reader.h"
#include "virtual_gpu/sample_source.h"

namespace qel::vexa::virtual_gpu {

struct seam_reader_options {
    std::uint64_t period_ns = 10'000'000;
    std::uint32_t hwver = 5;    // the first version that has a known layout of cores
    bool initialized = true;    // false: a reader that could not be set up
    bool begin_fails = false;   // begin_sampling_periodic gives false
    bool free_running = false;  // doesn't wait; the timestamps still are one period apart
    // The reader ends by itself, as after a failure, when the callback has had so many samples.
    std::optional<std::uint64_t> stop_after = std::nullopt;
};

// Samples fall due at whole periods from begin_sampling_periodic on, and carry their due time on
// CLOCK_MONOTONIC_RAW. A caller that is late gets the missed ones one after another. The first sample only
// sets the time base; the callback gets the source's samples from number 1 on.
class seam_reader final : public counterfeed::hwc_reader {
public:
    seam_reader(std::unique_ptr<sample_source> source, const sample_layout& layout,
                const seam_reader_options& options);
    ~seam_reader() override;
    seam_reader(const seam_reader&) = delete;
    seam_reader& operator=(const seam_reader&) = delete;

    bool is_initialized() const override;
    std::uint32_t get_hwver() const override;
    bool begin_sampling_periodic() override;
    void process_buffers_until_interrupted(counterfeed::sample_callback callback) override;
    void interrupt() override;

private:
    // False when an interrupt came first.
    bool wait_until(std::uint64_t due) const;

    const std::unique_ptr<sample_source> source_;
    const seam_reader_options options_;
    std::vector<std::uint32_t> words_;
    int interrupt_fd_ = -1;
    std::optional<std::uint64_t> begin_;  // when sampling began
    std::uint64_t next_number_ = 0;
};

}  // namespace qel::vexa::virtual_gpu
