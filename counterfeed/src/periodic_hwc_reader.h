// The reader over the kernel driver.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <system_error>
#include <vector>

#include "base/vexa_base_hwcnt_reader.h"
#include "counterfeed/src/hwc_reader.h"

namespace qel::vexa::counterfeed {

class periodic_hwc_reader final : public hwc_reader {
public:
    // Connects to the GPU. The period is 1 to 4294967295 ns; for any other one ec becomes EINVAL of the
    // generic category. Every other failure leaves ec as it is and shows in is_initialized alone, so ask
    // both.
    periodic_hwc_reader(std::chrono::nanoseconds period, std::error_code& ec);
    ~periodic_hwc_reader() override;
    periodic_hwc_reader(const periodic_hwc_reader&) = delete;
    periodic_hwc_reader& operator=(const periodic_hwc_reader&) = delete;

    bool is_initialized() const override;
    std::uint32_t get_hwver() const override;
    // The kernel samples until the reader is destroyed.
    bool begin_sampling_periodic() override;
    // The first sample only sets the time base and does not reach the callback. Aborts on an empty callback.
    void process_buffers_until_interrupted(sample_callback callback) override;
    void interrupt() override;
    // What the kernel's samples have room for. 0 for a reader that is not initialised, and where they have
    // room for a part of a value.
    std::uint64_t words_per_sample() const;

private:
    struct reader_deleter {
        void operator()(base_hwcnt_reader* gone) const { base_hwcnt_reader_term(gone); }
    };

    // False when an interrupt or a failure came first.
    bool wait_for_sample(base_hwcnt_sample& sample) const;
    const std::uint32_t* words_of(const base_hwcnt_sample& sample);

    std::chrono::nanoseconds sampling_period;
    bool sampling_started = false;
    base_context context{};
    std::unique_ptr<base_hwcnt_reader, reader_deleter>
        hwcnt_reader;                             // held exactly when the object is usable
    std::vector<std::uint32_t> converted_sample;  // only for samples whose values have 64 bits
};

}  // namespace qel::vexa::counterfeed
