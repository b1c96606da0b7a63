// The data source's setup on any bytes in the place of a counter config: the period keeps its limits, and
// each setup gives the same as one by itself.

#include <android/log.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "counterfeed/src/vexa_gpu_data_source.h"

// The platform's log would drown the fuzzer's own lines.
extern "C" int __android_log_write(int /*priority*/, const char* /*tag*/, const char* /*text*/) {
    return 1;
}

namespace {

using namespace qel::vexa::counterfeed;  // NOLINT(google-build-using-namespace)

// The reader over the kernel driver would wait for the driver.
class unusable_reader final : public hwc_reader {
public:
    bool is_initialized() const override { return false; }
    std::uint32_t get_hwver() const override { return 0; }
    bool begin_sampling_periodic() override { return false; }
    void process_buffers_until_interrupted(sample_callback /*callback*/) override {}
    void interrupt() override {}
};
const reader_factory factory = [] { return std::make_unique<unusable_reader>(); };

class data_source : public vexa_gpu_data_source {
public:
    using vexa_gpu_data_source::counter_ids;
    using vexa_gpu_data_source::sampling_period;

    void set_up(const std::string& bytes) {
        perfetto::DataSourceConfig config;
        config.set_gpu_counter_config_raw(bytes);
        config.mutable_for_testing()->mutable_dummy_fields()->set_field_uint64(
            reinterpret_cast<std::uintptr_t>(&factory));
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
