// Readers for tests of the data source: what the virtual GPU delivers, and a place to look at it on its way.
#pragma once

#include <cstdint>
#include <memory>
#include <utility>

#include "virtual_gpu/sample_source.h"
#include "virtual_gpu/seam_reader.h"

namespace test_support {

// A sample in every period.
inline qel::vexa::virtual_gpu::seam_reader_options every(std::uint64_t period_ns) {
    qel::vexa::virtual_gpu::seam_reader_options options;
    options.period_ns = period_ns;
    return options;
}

// Samples of a GPU whose words follow the formula.
inline std::unique_ptr<qel::vexa::counterfeed::hwc_reader> formula_reader(
    const qel::vexa::virtual_gpu::seam_reader_options& options,
    const qel::vexa::virtual_gpu::gpu_description& gpu = {}) {
    using namespace qel::vexa::virtual_gpu;  // NOLINT(google-build-using-namespace)
    return std::make_unique<seam_reader>(std::make_unique<formula_source>(), sample_layout(gpu), options);
}

// Passes everything on to another reader.
class forwarding_reader : public qel::vexa::counterfeed::hwc_reader {
public:
    explicit forwarding_reader(std::unique_ptr<hwc_reader> inner) : inner_(std::move(inner)) {}
    bool is_initialized() const override { return inner_->is_initialized(); }
    std::uint32_t get_hwver() const override { return inner_->get_hwver(); }
    bool begin_sampling_periodic() override { return inner_->begin_sampling_periodic(); }
    void process_buffers_until_interrupted(qel::vexa::counterfeed::sample_callback callback) override {
        inner_->process_buffers_until_interrupted(std::move(callback));
    }
    void interrupt() override { inner_->interrupt(); }

private:
    const std::unique_ptr<hwc_reader> inner_;
};

}  // namespace test_support
