// The data source driven by hand, with its state laid open, as the SDK drives it for one session.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "counterfeed/src/vexa_gpu_data_source.h"

namespace test_support {

class driven_data_source : public qel::vexa::counterfeed::vexa_gpu_data_source {
public:
    using vexa_gpu_data_source::counter_ids;
    using vexa_gpu_data_source::poll_thread;
    using vexa_gpu_data_source::reader;
    using vexa_gpu_data_source::sampling_period;

    void set_up(const std::string& counter_config,
                const qel::vexa::counterfeed::reader_factory* factory = nullptr) {
        perfetto::DataSourceConfig config;
        config.set_gpu_counter_config_raw(counter_config);
        if (factory != nullptr) {
            config.mutable_for_testing()->mutable_dummy_fields()->set_field_uint64(
                reinterpret_cast<std::uintptr_t>(factory));
        }
        SetupArgs arguments;
        arguments.config = &config;
        OnSetup(arguments);
    }
    void begin() { OnStart({}); }
    void stop() {
        struct stop_arguments : StopArgs {
            std::function<void()> HandleStopAsynchronously() const override { return {}; }
        };
        OnStop(stop_arguments());
    }
};

}  // namespace test_support
