// The data source's setup on any bytes in the place of a counter config: the period keeps its limits, and
// each setup gives the same as one by itself.

#include <android/log.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "counterfeed/src/vexa_gpu_data_source.h"

// The platform's log would drown the fuzzer's own lines.
extern "C" int __android_log_write(int /*priority*/, const char* /*tag*/, const char* /*text*/) {
    return 1;
}

namespace {

class data_source : public qel::vexa::counterfeed::vexa_gpu_data_source {
public:
    using vexa_gpu_data_source::counter_ids;
    using vexa_gpu_data_source::sampling_period;

    void set_up(const std::string& bytes) {
        perfetto::DataSourceConfig config;
        config.set_gpu_counter_config_raw(bytes);
        SetupArgs arguments;
        arguments.config = &config;
        OnSetup(arguments);
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static data_source used;
    data_source fresh;
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    fresh.set_up(bytes);
    used.set_up(bytes);
    if (fresh.sampling_period < 1'000'000 || fresh.sampling_period > 1'000'000'000 ||
        fresh.sampling_period != used.sampling_period || fresh.counter_ids != used.counter_ids ||
        fresh.counter_ids.size() > size) {
        std::abort();
    }
    return 0;
}
