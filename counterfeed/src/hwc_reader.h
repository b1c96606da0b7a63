// The source of periodic hardware counter samples, and the seam at which another source can be plugged in.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

namespace qel::vexa::counterfeed {

// Called once for each sample: its timestamp and the time since the previous sample, both in nanoseconds, the
// GPU's cycle count, and the sample's words, laid out as hwc/profiler.h tells. The words are valid only
// during the call.
using sample_callback = std::function<void(std::uint64_t timestamp, std::uint64_t delta, std::uint64_t cycles,
                                           const std::uint32_t* sample)>;

// Made, started and destroyed by the session's thread; process_buffers_until_interrupted is called once, by
// the sampling thread, after begin_sampling_periodic has succeeded.
class hwc_reader {
public:
    virtual ~hwc_reader() = default;

    // True exactly when the reader is usable. One that is not gives 0 from get_hwver and false from
    // begin_sampling_periodic, returns at once from process_buffers_until_interrupted and ignores interrupt.
    virtual bool is_initialized() const = 0;

    // The version of the counter hardware, which the profiler needs.
    virtual std::uint32_t get_hwver() const = 0;

    // Starts sampling at the interval that was fixed when the reader was made. False on failure, and on a
    // second call.
    virtual bool begin_sampling_periodic() = 0;

    // Blocks the calling thread and calls the callback on it once per sample, until interrupt or a hard
    // failure ends it. The two look the same to the caller, which has nothing different to do.
    virtual void process_buffers_until_interrupted(sample_callback callback) = 0;

    // The one operation that another thread may call meanwhile. Never blocks. A sample in the callback's
    // hands is completed first; after the loop has ended it has no effect.
    virtual void interrupt() = 0;
};

// Makes a substitute reader, or an empty owner for none. A trace config can carry the address of one that
// lives in the same process; see vexa_gpu_data_source::OnSetup.
using reader_factory = std::function<std::unique_ptr<hwc_reader>()>;

}  // namespace qel::vexa::counterfeed
