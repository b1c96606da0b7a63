// The sample sources, the reader over them, and the text that configures the preloaded form.

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <thread>
#include <tuple>

#include "gtest/gtest.h"
#include "virtual_gpu/clock.h"
#include "virtual_gpu/configuration.h"
#include "virtual_gpu/known_gpus.h"
#include "virtual_gpu/seam_reader.h"
#include "virtual_gpu/workload.h"

namespace qel::vexa::virtual_gpu {
namespace {

constexpr std::uint64_t millisecond = 1'000'000;

TEST(FormulaSource, IsTheSameOnEveryProcessor) {
    EXPECT_EQ(formula_word(7, 5, 63), 0xcbfd'9974);
    EXPECT_EQ(formula_cycles(7), 0xbee'2c07'4c68U);
}

TEST(WorkloadSource, EveryGpuWorksWithinItsCycles) {
    for (const known_gpu& known : known_gpus) {
        const gpu_description gpu{.product_id = known.masked_id, .core_group_masks = {0b1011}};
        const sample_layout layout(gpu);
        std::vector<std::uint32_t> words(layout.word_count());
        workload_source source(gpu);
        for (std::uint64_t time = 0; time < 4000 * millisecond; time += 200 * millisecond) {
            const std::uint64_t cycles = source.take({0, time, time + 20 * millisecond}, words);
            EXPECT_EQ(cycles, 16'000'000U);
            for (std::size_t block = 0; block < layout.block_count(); ++block) {
                const std::uint32_t* counters = &words[block * words_per_block];
                const auto most = *std::max_element(counters + header_words, counters + words_per_block);
                EXPECT_LE(most, cycles);
                EXPECT_EQ(most == 0, block == layout.first_core_block() + 2) << "there is no third core";
            }
        }
    }
}

seam_reader make_reader(const seam_reader_options& options) {
    return {std::make_unique<formula_source>(), sample_layout({.core_group_masks = {0b101}, .l2_slices = 1}),
            options};
}

TEST(SeamReader, DeliversEverySampleButTheFirst) {
    constexpr std::uint64_t period = 2 * millisecond;
    seam_reader reader = make_reader({.period_ns = period, .stop_after = 20});
    const std::uint64_t before = raw_clock();
    EXPECT_TRUE(reader.begin_sampling_periodic());
    std::uint64_t samples = 0;
    std::uint64_t due = 0;
    reader.process_buffers_until_interrupted(
        [&](std::uint64_t timestamp, std::uint64_t delta, std::uint64_t cycles, const std::uint32_t* words) {
            due = samples++ == 0 ? timestamp : due + period;
            EXPECT_EQ(timestamp, due);
            EXPECT_LE(timestamp, raw_clock());
            EXPECT_EQ(delta, period);
            EXPECT_EQ(cycles, formula_cycles(samples));
            EXPECT_EQ(words[5 * 64], static_cast<std::uint32_t>(timestamp)) << "the third core's header";
            EXPECT_EQ(words[5 * 64 + 63], formula_word(samples, 5, 63));
            if (samples == 3) {  // delays the samples behind it, and nothing more
                std::this_thread::sleep_for(std::chrono::milliseconds(11));
            }
        });
    EXPECT_EQ(samples, 20U);
    EXPECT_GE(due, before + 21 * period);
}

TEST(SeamReader, InterruptEndsTheWaitAndWinsOverSamples) {
    unsigned samples = 0;
    const auto count = [&samples](auto...) { ++samples; };
    seam_reader slow = make_reader({.period_ns = 1000 * millisecond});
    slow.begin_sampling_periodic();
    std::thread thread([&] { slow.process_buffers_until_interrupted(count); });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const std::uint64_t before = raw_clock();
    slow.interrupt();
    thread.join();
    EXPECT_LT(raw_clock() - before, 500 * millisecond);
    seam_reader fast = make_reader({.free_running = true, .stop_after = 1});
    fast.begin_sampling_periodic();
    fast.interrupt();
    fast.process_buffers_until_interrupted(count);
    EXPECT_EQ(samples, 0U);
}

TEST(Configuration, DescribesSeveralGpus) {
    std::string error;
    const auto all = parse_configuration(
        "features=1,period=7;;legacy=1,hwver=9,late=1500,source=formula,failures=get_buffer@5=EIO:stat=2",
        error);
    ASSERT_TRUE(all) << error;
    ASSERT_EQ(all->machine.nodes.size(), 3U);
    EXPECT_EQ(all->machine.nodes[0].gpu.reader_features, 1U);
    EXPECT_EQ(all->period_ns, 7U);
    EXPECT_EQ(all->machine.nodes[1].gpu.source, source_kind::workload);
    const initial_node& last = all->machine.nodes[2];
    EXPECT_TRUE(last.gpu.is_legacy);
    EXPECT_EQ(last.gpu.counter_hardware_version, 9U);
    EXPECT_EQ(last.gpu.source, source_kind::formula);
    EXPECT_EQ(last.delay, std::chrono::milliseconds(1500));
    const auto& failures = all->machine.failures;
    ASSERT_EQ(failures.size(), 2U);
    EXPECT_EQ(std::tuple(failures[0].kind, failures[0].error, failures[0].nth),
              std::tuple(request_kind::get_buffer, EIO, 5U));
    EXPECT_EQ(std::tuple(failures[1].kind, failures[1].error, failures[1].nth),
              std::tuple(request_kind::stat, ENOENT, 0U));
    EXPECT_TRUE(parse_configuration("none", error)->machine.nodes.empty());
}

TEST(Configuration, MistakesAreNamed) {
    std::string error;
    for (const std::string bad : {"colour=red",
                                  "l2=256",
                                  "l2=-1",
                                  "l2=",
                                  "l2",
                                  "status=1",
                                  "none",
                                  "id=0x",
                                  "id=9002h",
                                  "id= 1",
                                  "bus=12",
                                  "version=11",
                                  "version=1.2.",
                                  "groups=1:",
                                  "source=film",
                                  "period=0",
                                  "clock=10001",
                                  "features=4",
                                  "legacy=2",
                                  "late=60001",
                                  "failures=",
                                  "failures=paint=EIO",
                                  "failures=open@0=EIO",
                                  "failures=open@1=EGREAT",
                                  "failures=open@1",
                                  "failures=open=EIO:"}) {
        EXPECT_FALSE(parse_configuration("status=1," + bad + ",revision=1.2", error)) << bad;
        EXPECT_NE(error.find("bad item \"" + bad + "\""), std::string::npos) << bad << ": " << error;
    }
    EXPECT_FALSE(parse_configuration("groups=1:2,cores=7", error));
    EXPECT_FALSE(parse_configuration("id=0x100000000", error));
    EXPECT_FALSE(parse_configuration("l2=4,", error));
    EXPECT_FALSE(parse_configuration("l2=4;none", error));
    ::setenv("VIRTUAL_GPU", "l2=4,colour=red", 1);
    EXPECT_EXIT(read_environment(), testing::ExitedWithCode(2), "^VIRTUAL_GPU: bad item \"colour=red\".*\n$");
}

}  // namespace
}  // namespace qel::vexa::virtual_gpu
