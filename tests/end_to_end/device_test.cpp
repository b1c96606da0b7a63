// The whole job as on a device: the library in the launcher's process, over the kernel driver, and the real
// tracing service.

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <set>
#include <sstream>

#include "tests/end_to_end/formula_values.h"
#include "tests/support/tracing_service.h"
#include "virtual_gpu/configuration.h"
#include "workstation/report/frames.h"

namespace {

using namespace qel::vexa;  // NOLINT(google-build-using-namespace)
using test_support::eventually;
using test_support::process;
using test_support::read_file;
using test_support::tracing_service;
namespace machine = virtual_gpu::machine;

// One GPU that counts by the formula and waits for a free buffer with each sample, so that none is lost on a
// busy machine, and the launcher that offers its counters to a service of its own.
class device {
public:
    explicit device(const std::string& gpu = "id=0x9002")
        : description_(describe(gpu)),
          launcher(test_support::launcher_setup(gpu + ",source=formula,loses=0",
                                                service.folder.file("output"), service.environment())) {
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

    std::vector<std::uint32_t> all_ids() const { return test_support::all_ids(*product_); }

    void expect_exact(const report::counter_sequence& sequence, const std::vector<std::uint32_t>& ids,
                      unsigned period_ms = 1) const {
        test_support::expect_formula_values(sequence, ids, *product_, description_, period_ms * 1'000'000ULL);
    }

private:
    static virtual_gpu::gpu_description describe(const std::string& gpu) {
        std::string error;
        return virtual_gpu::parse_configuration(gpu, error).value().machine.nodes.front().gpu;
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

// A session until it is stopped, whose file grows meanwhile.
std::string config_of(const std::vector<std::uint32_t>& ids, unsigned period_ms = 1) {
    return test_support::session_config(ids, 0, period_config(period_ms)) +
           test_support::with_room_for(COUNTERFEED_LAUNCHER) +
           " write_into_file: true file_write_period_ms: 100";
}

std::function<bool(const std::string&)> has_grown_to(std::uintmax_t size) {
    return [size](const std::string& file) {
        std::error_code ec;
        const std::uintmax_t now = std::filesystem::file_size(file, ec);
        return !ec && now >= size;
    };
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
        unsigned bytes;
    } cases[] = {
        {"id=0x9002,cores=0x3ff,l2=4", 6'000'000},
        {"id=0x9002,cores=0xb,l2=2,features=1,status=15,revision=3.7", 1'000'000},
        {"id=0x9004,cores=0x80000001,l2=3,status=16", 1'000'000},
        {"id=0x9d52,groups=0x3:0xf0,l2=5,version=11.40", 1'000'000},
        {"id=0x9002,cores=0xfffffff7,l2=7,bus=32", 1'000'000},
        {"id=0x9004,cores=0x1,l2=8,bus=8,version=11.28", 1'000'000},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.gpu);
        device gpu(c.gpu);
        const auto sequence =
            only_sequence(gpu.service.record_until(config_of(gpu.all_ids()), has_grown_to(c.bytes)));
        EXPECT_GT(sequence.samples.size(), c.bytes / 10'000);
        gpu.expect_exact(sequence, gpu.all_ids());
    }
}

// How many threads of a process wait for samples.
std::size_t sampling_threads(pid_t id) {
    std::size_t result = 0;
    const auto threads = "/proc/" + std::to_string(id) + "/task";
    for (const auto& thread : std::filesystem::directory_iterator(threads)) {
        result += read_file(thread.path() / "comm") == "gpu-hwc-periodi\n" ? 1U : 0U;
    }
    return result;
}

// Each has its own thread, selection and period, and receives what its neighbours write as well. The service
// does not let one user have eight, so that these come in pairs.
TEST(Device, EightSessionsAtATime) {
    device gpu;
    constexpr std::uint32_t session_count = 8;
    const auto ids_of = [](std::uint32_t session) { return std::vector<std::uint32_t>{6, 70 + session}; };
    const auto trace_of = [&gpu](std::uint32_t session) {
        return gpu.service.folder.file("pair" + std::to_string(session / 2));
    };
    std::vector<std::unique_ptr<process>> recordings;
    for (std::uint32_t i = 0; i < session_count; i += 2) {
        recordings.push_back(gpu.service.start_recording(
            config_of(ids_of(i), i + 1) +
                test_support::data_source_config(ids_of(i + 1), period_config(i + 2)),
            trace_of(i)));
    }
    ASSERT_TRUE(eventually([&] { return sampling_threads(gpu.launcher.id()) == session_count; }));
    for (std::uint32_t i = 0; i < session_count; i += 2) {
        std::error_code ec;
        const std::uintmax_t by_now = std::filesystem::file_size(trace_of(i), ec);
        EXPECT_TRUE(eventually([&] { return has_grown_to(by_now + 100'000)(trace_of(i)); }));
    }
    for (const auto& recording : recordings) {
        ::kill(recording->id(), SIGTERM);
        EXPECT_EQ(recording->wait(), 0);
    }
    for (std::uint32_t i = 0; i < session_count; ++i) {
        const auto sequences = report::read_counters(read_file(trace_of(i)));
        ASSERT_TRUE(sequences);
        std::set<std::uint32_t> counters;  // of which each session has one to itself
        bool is_whole = false;             // from its first packet on
        for (const auto& [number, sequence] : *sequences) {
            for (const report::counter_sample& sample : sequence.samples) {
                ASSERT_EQ(sample.values.size(), 2U);
                counters.insert(sample.values[1].id);
            }
            if (!sequence.counters.empty() && sequence.counters.back().id == ids_of(i).back()) {
                is_whole = true;
                EXPECT_GT(sequence.samples.size(), 20U);
                gpu.expect_exact(sequence, ids_of(i), i + 1);
            }
        }
        EXPECT_TRUE(is_whole) << i;
        EXPECT_EQ(counters.size(), session_count);
    }
}

// Frames and samples of a session, as the report reads them.
struct frames_and_samples : report::trace_listener {
    report::frame_collector timeline;
    std::vector<report::counter_sample> samples;

    void on_counters(std::uint32_t /*sequence*/,
                     const std::vector<report::counter_description>& /*counters*/) override {}
    void on_sample(std::uint32_t /*sequence*/, const report::counter_sample& sample) override {
        samples.push_back(sample);
    }
    void on_clocks(std::string_view snapshot) override { timeline.on_clocks(snapshot); }
    void on_frame_event(std::uint64_t time, std::uint32_t clock, std::string_view event) override {
        timeline.on_timeline_event(time, clock, event);
    }
};

// The GPU works from half a millisecond after an application's frame begins until the frame ends, whatever
// clocks these are told on, and it rests until the next one.
TEST(Device, FramesAreTheOnesThatTheCountersSee) {
    const tracing_service service;
    const process launcher(test_support::launcher_setup(
        "id=0x9002,source=workload,loses=0", service.folder.file("output"), service.environment()));
    const process frames({.command = {COUNTERFEED_FRAMES},
                          .environment = service.environment(),
                          .preload = {},
                          .output = {},
                          .of_this_build = true});
    std::uint32_t gpu_active = 0;
    ASSERT_TRUE(eventually([&] {
        const std::string state = service.query();
        for (const auto& counter : report::read_offered_counters(state)) {
            gpu_active = counter.name == "GPU active cycles" ? counter.id : gpu_active;
        }
        return gpu_active != 0 && state.find("frametimeline") != std::string::npos;
    }));
    std::istringstream trace(service.record_until(
        config_of({gpu_active}) +
            " data_sources { config { name: \"android.surfaceflinger.frametimeline\" } }",
        has_grown_to(100'000)));
    frames_and_samples read;
    report::read_trace(trace, read);
    std::vector<report::frame> list = read.timeline.finish();
    std::erase_if(list, [](const report::frame& each) { return each.layer.empty(); });
    ASSERT_GT(list.size(), 20U);
    constexpr std::uint64_t period = 1'000'000, preparation = 500'000, inaccuracy = 200'000;
    double most = 0;  // of a sample in which it never rested
    for (const report::counter_sample& sample : read.samples) {
        most = std::max(most, sample.values.at(0).value);
    }
    std::size_t busy = 0, idle = 0;
    for (std::size_t i = 0; i + 1 < list.size(); ++i) {
        EXPECT_EQ(list[i].jank == 64, list[i].end > list[i].expected_end);
        for (const report::counter_sample& sample : read.samples) {
            const std::uint64_t begin = sample.timestamp - period + inaccuracy;
            const std::uint64_t end = sample.timestamp - inaccuracy;
            if (begin >= list[i].start + preparation && end <= list[i].end) {
                ++busy;
                EXPECT_GT(sample.values.at(0).value, most / 2);
            } else if (begin >= list[i].end && end <= list[i + 1].start + preparation) {
                ++idle;
                EXPECT_LT(sample.values.at(0).value, most / 2);
            }
        }
    }
    EXPECT_GT(busy, 100U);
    EXPECT_GT(idle, 40U);
}

TEST(Device, OffersItsCountersToTheNextServiceToo) {
    device gpu;
    for (int i = 0; i < 2; ++i) {
        gpu.service.restart();
        ASSERT_TRUE(gpu.is_offered());
        const auto sequence =
            only_sequence(gpu.service.record_until(config_of({5, 6, 65535}), has_grown_to(5'000)));
        EXPECT_FALSE(sequence.samples.empty());
        gpu.expect_exact(sequence, {5, 6, 65535});
    }
    const std::string trace = gpu.service.folder.file("trace");
    const auto cut_short = gpu.service.start_recording(config_of({5}), trace);
    EXPECT_TRUE(eventually([&trace] { return has_grown_to(5'000)(trace); }));
    gpu.service.restart();
    EXPECT_TRUE(gpu.is_offered());
    EXPECT_TRUE(gpu.launcher.is_running());
}

}  // namespace
