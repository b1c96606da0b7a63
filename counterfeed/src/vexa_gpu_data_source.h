// The data source "gpu.counters": one object for each trace session that wants GPU counters.
#pragma once

#include <perfetto.h>

#include <cstdint>
#include <memory>
#include <set>
#include <thread>

#include "counterfeed/src/hwc_reader.h"
#include "counterfeed/src/registration.h"
#include "logging/logging.h"

namespace qel::vexa::counterfeed {

// The SDK makes the object when a session enables the data source and calls its operations on the SDK's own
// thread, in the order OnSetup, OnStart, OnStop. None of them reports a failure to the SDK: a failed session
// is logged and carries no data. Destroying the object while its thread runs ends the process.
class vexa_gpu_data_source
    : public perfetto::DataSource<vexa_gpu_data_source, perfetto::DefaultDataSourceTraits> {
public:
    // Reads the session's counter ids and sampling period, and makes the reader. A config may carry the
    // address of a reader_factory in this process, for_testing.dummy_fields.field_uint64, which is then asked
    // for the reader. Without a new reader, one of an earlier setup stays and can still be started.
    void OnSetup(const SetupArgs& arguments) override;

    // Starts the sampling, and the thread that waits for samples.
    void OnStart(const StartArgs& arguments) override;

    // Ends both. Returns when the sample in hand, if any, is written.
    void OnStop(const StopArgs& arguments) override;

protected:  // and not private, so that a test can derive from the class and look
    // The body of the sampling thread. What it reads of the object is final before the thread starts and
    // stays so until OnStop has joined it.
    void threadfn_periodic_counter_poll_loop() const;

    static constexpr std::int64_t default_sampling_period = 10'000'000;  // nanoseconds

    std::int64_t sampling_period = default_sampling_period;  // nanoseconds
    std::set<std::uint32_t> counter_ids;
    std::unique_ptr<hwc_reader>
        reader;  // held from a setup that worked until the stop, or a start that failed
    // What a sample of that reader's has room for; a substitute reader is taken to deliver all that the GPU
    // in use calls for.
    std::uint64_t words_per_sample = 0;
    std::thread poll_thread;
    logging::print::logger logger{logging::tag("vexa_gpu_data_source")};
};

}  // namespace qel::vexa::counterfeed

PERFETTO_DECLARE_DATA_SOURCE_STATIC_MEMBERS(qel::vexa::counterfeed::vexa_gpu_data_source);
