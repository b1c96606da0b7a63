// The whole job as on a device: the library in the launcher's process, over the kernel driver, and the real
// tracing service.

#include <gtest/gtest.h>
#include <signal.h>

#include <optional>
#include <regex>
#include <set>

#include "tests/end_to_end/formula_values.h"
#include "tests/support/tracing_service.h"
#include "virtual_gpu/configuration.h"
#include "virtual_gpu/counter_reader.h"

namespace {

using namespace qel::vexa;  // NOLINT(google-build-using-namespace)
using test_support::eventually;
using test_support::process;
using test_support::read_file;
using test_support::session_config;
using test_support::tracing_service;
namespace machine = virtual_gpu::machine;

// One GPU that counts by the formula, with the launcher that offers its counters to a service of its own.
class device {
public:
    explicit device(const std::string& gpu = "id=0x9002")
        : description_(describe(gpu)),
          launcher(test_support::launcher_setup(gpu + ",source=formula", service.folder.file("output"),
                                                service.environment())) {
        machine::reset();
        machine::add_node(0, description_);
        std::error_code ec;
        product_.emplace("/dev/vexa0", ec);
        EXPECT_FALSE(ec);
        EXPECT_TRUE(is_offered());
    }
    ~device() { EXPECT_EQ(read_file(service.folder.file("output")), ""); }

    bool is_offered() const {
        return eventually([this] { return !report::read_offered_counters(service.query()).empty(); });
    }

    std::vector<std::uint32_t> all_ids() const {
        std::vector<std::uint32_t> result;
        for (const hwc::vexa_counter_descriptor& row : *product_->counters) {
            result.push_back(row.id);
        }
        std::sort(result.begin(), result.end());
        return result;
    }

    // Expects exactly these counters, the samples from the first one on, and a whole number of periods
    // between two. There is more than one where the machine was too busy for a while.
    void expect_exact(const report::counter_sequence& sequence, const std::vector<std::uint32_t>& ids,
                      std::uint64_t period_ms) const {
        ASSERT_EQ(sequence.counters.size(), ids.size());
        for (std::size_t i = 0; i < ids.size(); ++i) {
            EXPECT_EQ(sequence.counters[i].id, ids[i]);
        }
        const auto& samples = sequence.samples;
        for (std::size_t i = 1; i < samples.size(); ++i) {
            ASSERT_GT(samples[i].timestamp, samples[i - 1].timestamp);
            ASSERT_EQ((samples[i].timestamp - samples[i - 1].timestamp) % (period_ms * 1'000'000), 0U);
        }
        test_support::expect_formula_values(sequence, *product_, description_, cycles_of(description_));
    }

private:
    static virtual_gpu::gpu_description describe(const std::string& gpu) {
        std::string error;
        return virtual_gpu::parse_configuration(gpu, error).value().machine.nodes.front().gpu;
    }

    // What a session has of a sample's cycles: no cycle count that is no feature is touched, unless there is
    // none at all.
    static std::uint64_t (*cycles_of(const virtual_gpu::gpu_description& gpu))(std::uint64_t) {
        if (gpu.is_legacy || gpu.reader_features == 0) {
            return [](std::uint64_t) -> std::uint64_t { return 0; };
        }
        if (gpu.reader_features == virtual_gpu::feature_shader_cycles) {
            return [](std::uint64_t) { return virtual_gpu::unfilled_cycles; };
        }
        return virtual_gpu::formula_cycles;
    }

    const virtual_gpu::gpu_description description_;
    std::optional<hwc::product> product_;

public:
    tracing_service service;
    process launcher;
};

std::string period_config(unsigned period_ms) {
    return "counter_period_ns: " + std::to_string(period_ms * 1'000'000ULL);
}

// The one sequence of a trace.
report::counter_sequence only_sequence(const std::string& trace) {
    const auto sequences = report::read_counters(trace);
    EXPECT_TRUE(sequences && sequences->size() == 1);
    return sequences && !sequences->empty() ? sequences->begin()->second : report::counter_sequence();
}

TEST(Device, EveryValueOfEveryRowArrives) {
    const struct {
        const char* gpu;
        unsigned duration_ms;
    } cases[] = {
        {"id=0x9002,cores=0x3ff,l2=4", 4000},
        {"id=0x9004,cores=0x1,l2=1,features=0", 1000},
        {"id=0x9002,cores=0xb,l2=2,features=1,status=15,revision=3.7", 1000},
        {"id=0x9004,cores=0x80000001,l2=3,features=2,status=16", 1000},
        {"id=0x9d52,groups=0x3:0xf0,l2=5,features=3,version=11.40", 1000},
        {"id=0x9004,cores=0xaaaa,l2=6,legacy=1,version=11.28", 1000},
        {"id=0x9002,cores=0xfffffff7,l2=7,bus=32", 1000},
        {"id=0x9004,cores=0x5,l2=8,bus=8,features=1", 1000},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.gpu);
        device gpu(c.gpu);
        const auto sequence =
            only_sequence(gpu.service.record(session_config(gpu.all_ids(), c.duration_ms, period_config(1))));
        EXPECT_GT(sequence.samples.size(), c.duration_ms / 4);
        gpu.expect_exact(sequence, gpu.all_ids(), 1);
    }
}

}  // namespace
