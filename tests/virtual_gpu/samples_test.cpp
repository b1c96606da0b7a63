// The sample sources, the reader over them, and the text that configures the preloaded form.

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <sstream>
#include <thread>
#include <tuple>

#include "gtest/gtest.h"
#include "hwc/job_manager_rows.h"
#include "hwc/memory_system_rows.h"
#include "hwc/shader_core_rows.h"
#include "hwc/tiler_rows.h"
#include "virtual_gpu/configuration.h"
#include "virtual_gpu/known_gpus.h"
#include "virtual_gpu/seam_reader.h"
#include "virtual_gpu/workload.h"

namespace qel::vexa::virtual_gpu {
namespace {

constexpr std::uint64_t millisecond = 1'000'000;

std::uint64_t raw_clock() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC_RAW, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(now.tv_nsec);
}

TEST(SampleLayout, CoresStandAtTheirIndices) {
    const std::tuple<std::uint64_t, std::uint8_t, std::size_t> cases[] = {
        {0b1011, 2, 8}, {0x3ff, 4, 16}, {0, 0, 2}, {std::uint64_t{1} << 63, 1, 67}};
    for (const auto& [mask, slices, blocks] : cases) {
        const gpu_description gpu{.core_group_masks = {mask}, .l2_slices = slices};
        EXPECT_EQ(sample_layout(gpu).block_count(), blocks) << mask;
    }
}

TEST(FormulaSource, WordsAreDistinctAndReachTheExtremes) {
    std::vector<std::uint32_t> words(16 * words_per_block);
    formula_source source;
    std::map<std::uint32_t, int> seen;
    for (std::uint64_t number = 0; number < 20; ++number) {
        EXPECT_EQ(source.take({number, 0, 0x1234'5678'9abc + number}, words), formula_cycles(number));
        for (std::size_t i = 0; i < words.size(); ++i) {
            const std::size_t offset = i % words_per_block;
            if (offset >= header_words) {
                EXPECT_EQ(words[i], formula_word(number, i / words_per_block, offset));
                ++seen[words[i]];
            }
        }
        EXPECT_EQ(words[64], 0x5678'9abcU + number);
        EXPECT_EQ(words[65], 0x1234U);
        EXPECT_EQ(words[66], 0xffff'ffffU);
    }
    EXPECT_GT(seen.extract(0).mapped(), 300);
    EXPECT_GT(seen.extract(0xffff'ffff).mapped(), 300);
    for (const auto& [value, times] : seen) {
        EXPECT_LT(times, 4) << value;
    }
}

// The counters of a sample by hardware name, added up over all blocks that have them.
std::map<std::string_view, std::uint64_t> by_name(const sample_layout& layout, unsigned table,
                                                  const std::vector<std::uint32_t>& words) {
    using rows = std::span<const hwc::raw_row>;
    std::map<std::string_view, std::uint64_t> sums;
    for (std::size_t block = 0; block < layout.block_count(); ++block) {
        for (const hwc::raw_row& row : block == 0                          ? rows(hwc::job_manager_rows)
                                       : block == 1                        ? rows(hwc::tiler_rows)
                                       : block < layout.first_core_block() ? rows(hwc::memory_system_rows)
                                                                           : rows(hwc::shader_core_rows)) {
            if (const std::optional<std::uint32_t> id = row.id_in(table)) {
                sums[row.hardware_name] += words[block * words_per_block + *id % words_per_block];
            }
        }
    }
    return sums;
}

TEST(WorkloadSource, CountersAgreeWithEachOther) {
    // The counters before the sign add up to the one behind it, or to no more than it.
    const char* const agreements[] = {
        "PRIM_VISIBLE PRIM_CULLED PRIM_CLIPPED PRIM_SAT_CULLED = TRIANGLES",
        "FRONT_FACING BACK_FACING = PRIM_VISIBLE",
        "L2_READ_LOOKUP L2_WRITE_LOOKUP L2_EXT_SNOOP_LOOKUP <= L2_ANY_LOOKUP",
        "L2_EXT_READ <= L2_READ_LOOKUP",
        "L2_EXT_WRITE <= L2_WRITE_LOOKUP",
        "L2_EXT_READ <= L2_EXT_READ_BEATS",
        "L2_EXT_WRITE <= L2_EXT_WRITE_BEATS",
        "L2_EXT_AR_CNT_Q1 L2_EXT_AR_CNT_Q2 L2_EXT_AR_CNT_Q3 <= L2_EXT_READ",
        "L2_EXT_AW_CNT_Q1 L2_EXT_AW_CNT_Q2 L2_EXT_AW_CNT_Q3 <= L2_EXT_WRITE",
        ("L2_EXT_RRESP_0_127 L2_EXT_RRESP_128_191 L2_EXT_RRESP_192_255 L2_EXT_RRESP_256_319 "
         "L2_EXT_RRESP_320_383 <= L2_EXT_READ_BEATS"),
        "UTLB_TRANS_HIT <= UTLB_TRANS",
        "UTLB1_TRANS_HIT <= UTLB1_TRANS",
        "JS0_ACTIVE <= GPU_ACTIVE",
        "ITER_FRAG_ACTIVE <= GPU_ACTIVE",
        "TILER_ACTIVE <= GPU_ACTIVE",
        "FRAG_QUADS_EZS_KILL QUAD_FPK_KILLER <= FRAG_QUADS_RAST",
        "FRAG_QUADS_EZS_KILL FRAG_WARPS <= FRAG_QUADS_RAST",
        "FULL_QUAD_WARPS <= FRAG_WARPS",
        "EXEC_CORE_ACTIVE <= SHADER_CORE_ACTIVE",
        "FRAG_ACTIVE <= SHADER_CORE_ACTIVE",
        "EXEC_INSTR_COUNT <= EXEC_CORE_ACTIVE",
        "EXEC_INSTR_FMA EXEC_INSTR_CVT EXEC_INSTR_SFU <= EXEC_CORE_ACTIVE",
        "TEX_FILT_NUM_FXR_OPERATIONS TEX_FILT_NUM_FST_OPERATIONS <= TEX_FILT_NUM_OPERATIONS",
        "TEX_COORD_ISSUE <= EXEC_CORE_ACTIVE",
        "BEATS_RD_TEX_EXT <= BEATS_RD_TEX",
    };
    std::set<std::string_view> tested;
    for (const known_gpu& known : known_gpus) {
        const gpu_description gpu{
            .product_id = known.masked_id, .core_group_masks = {0x8d}, .l2_slices = 3, .bus_width_bytes = 4};
        const sample_layout layout(gpu);
        std::vector<std::uint32_t> words(layout.word_count());
        workload_source source(gpu);
        std::uint64_t time = 3'600'000 * millisecond;
        for (std::uint64_t n = 0; n < 30; ++n) {
            SCOPED_TRACE("table " + std::to_string(known.counter_table) + ", sample " + std::to_string(n));
            const std::uint64_t period = (n % 3 == 0 ? 1 : n % 3 == 1 ? 10 : 170) * millisecond;
            EXPECT_EQ(source.take({n, time, time + period}, words), period * 4 / 5);
            time += period;
            for (std::size_t i = 0; i < words.size(); ++i) {
                const bool is_absent = i / words_per_block == layout.first_core_block() + 1;
                if (i % words_per_block >= header_words && words[i] > (is_absent ? 0 : period * 4 / 5)) {
                    ADD_FAILURE() << "word " << i << " is " << words[i];
                }
            }
            const auto sums = by_name(layout, known.counter_table, words);
            for (const char* const agreement : agreements) {
                std::uint64_t sum = 0;
                std::istringstream names(agreement);
                std::string name;
                bool is_known = true;
                for (names >> name; name != "=" && name != "<="; names >> name) {
                    is_known = is_known && sums.contains(name);
                    sum += is_known ? sums.at(name) : 0;
                }
                const bool is_exact = name == "=";
                names >> name;
                if (is_known && sums.contains(name)) {
                    const std::uint64_t whole = sums.at(name);
                    EXPECT_TRUE(is_exact ? sum == whole : sum <= whole)
                        << agreement << ": " << sum << ", " << whole;
                    if (sum > 0) {
                        tested.insert(agreement);
                    }
                }
            }
        }
    }
    EXPECT_EQ(tested.size(), std::size(agreements)) << "some agreement was never tested";
}

TEST(WorkloadSource, DrawsSixtyFramesPerSecond) {
    const gpu_description gpu;
    std::vector<std::uint32_t> words(sample_layout(gpu).word_count());
    workload_source source(gpu);
    std::uint64_t cycles = 0;
    std::uint64_t active = 0;
    std::uint64_t jobs = 0;
    std::uint64_t tasks = 0;
    unsigned idle = 0;
    for (std::uint64_t n = 0; n < 5000; ++n) {
        cycles += source.take({n, n * millisecond, (n + 1) * millisecond}, words);
        active += words[6];
        jobs += words[8];
        tasks += words[9];
        idle += words[6] == 0 ? 1 : 0;
    }
    EXPECT_EQ(cycles, 4'000'000'000U);
    EXPECT_NEAR(static_cast<double>(jobs), 300, 1);
    EXPECT_NEAR(static_cast<double>(tasks), 300 * 2040, 2040);
    EXPECT_GT(active, cycles / 4);
    EXPECT_LT(active, cycles * 9 / 10);
    EXPECT_GT(idle, 500U);
}

// A sample as the callback got it.
struct received {
    std::uint64_t timestamp, delta, cycles;
    std::vector<std::uint32_t> words;
};

class SeamReader : public testing::Test {
protected:
    seam_reader make(const seam_reader_options& options) {
        return {std::make_unique<formula_source>(), layout, options};
    }

    counterfeed::sample_callback keep(std::function<void()> then = [] {}) {
        return [this, then = std::move(then)](std::uint64_t timestamp, std::uint64_t delta,
                                              std::uint64_t cycles, const std::uint32_t* words) {
            samples.push_back({timestamp, delta, cycles, {words, words + layout.word_count()}});
            then();
        };
    }

    const sample_layout layout{gpu_description{.core_group_masks = {0b101}, .l2_slices = 1}};
    std::vector<received> samples;
};

TEST_F(SeamReader, BeginsOnceOrNotAtAll) {
    seam_reader absent = make({.initialized = false});
    absent.interrupt();
    EXPECT_FALSE(absent.is_initialized());
    EXPECT_EQ(absent.get_hwver(), 0U);
    EXPECT_FALSE(absent.begin_sampling_periodic());
    absent.process_buffers_until_interrupted(keep());

    seam_reader failing = make({.begin_fails = true});
    EXPECT_TRUE(failing.is_initialized());
    EXPECT_FALSE(failing.begin_sampling_periodic());
    failing.process_buffers_until_interrupted(keep());

    seam_reader reader = make({.hwver = 9, .free_running = true, .stop_after = 1});
    EXPECT_EQ(reader.get_hwver(), 9U);
    reader.process_buffers_until_interrupted(keep());
    EXPECT_TRUE(samples.empty()) << "sampling has not begun";
    EXPECT_TRUE(reader.begin_sampling_periodic());
    EXPECT_FALSE(reader.begin_sampling_periodic());
    reader.process_buffers_until_interrupted(keep());
    EXPECT_EQ(samples.size(), 1U);
}

TEST_F(SeamReader, DeliversEverySampleButTheFirst) {
    for (const bool free_running : {true, false}) {
        samples.clear();
        constexpr std::uint64_t period = 2 * millisecond;
        seam_reader reader = make({.period_ns = period, .free_running = free_running, .stop_after = 20});
        const std::uint64_t before = raw_clock();
        ASSERT_TRUE(reader.begin_sampling_periodic());
        const std::uint64_t after = raw_clock();
        // A callback that takes long delays the samples behind it, and nothing more.
        bool is_early = false;
        reader.process_buffers_until_interrupted(keep([&] {
            is_early = is_early || raw_clock() < samples.back().timestamp;
            if (samples.size() == 3) {
                std::this_thread::sleep_for(std::chrono::milliseconds(11));
            }
        }));
        EXPECT_EQ(is_early, free_running);
        ASSERT_EQ(samples.size(), 20U);
        EXPECT_GE(samples[0].timestamp, before + 2 * period);
        EXPECT_LE(samples[0].timestamp, after + 2 * period);
        for (std::size_t n = 0; n < samples.size(); ++n) {
            EXPECT_EQ(samples[n].timestamp, samples[0].timestamp + n * period);
            EXPECT_EQ(samples[n].delta, period);
            EXPECT_EQ(samples[n].cycles, formula_cycles(n + 1));
            ASSERT_EQ(samples[n].words.size(), 6 * words_per_block);
            EXPECT_EQ(samples[n].words[5 * 64 + 63], formula_word(n + 1, 5, 63));
            EXPECT_EQ(samples[n].words[64], static_cast<std::uint32_t>(samples[n].timestamp));
        }
    }
}

TEST_F(SeamReader, InterruptEndsTheWaitAndWinsOverSamples) {
    seam_reader slow = make({.period_ns = 1000 * millisecond});
    ASSERT_TRUE(slow.begin_sampling_periodic());
    std::thread thread([&] { slow.process_buffers_until_interrupted(keep()); });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const std::uint64_t before = raw_clock();
    slow.interrupt();
    thread.join();
    EXPECT_LT(raw_clock() - before, 500 * millisecond);
    EXPECT_TRUE(samples.empty());
    slow.interrupt();

    seam_reader fast = make({.free_running = true});
    ASSERT_TRUE(fast.begin_sampling_periodic());
    fast.process_buffers_until_interrupted(keep([&] {
        if (samples.size() == 4) {
            fast.interrupt();
        }
    }));
    EXPECT_EQ(samples.size(), 4U);
}

TEST(Configuration, EveryItemIsTaken) {
    std::string error;
    const auto setup = parse_configuration(
        "id=0x9004,revision=1.2,status=3,cores=0x3ff,groups=0x3f:0x3c0,l2=2,bus=32,clock=500,version=11.28,"
        "source=formula,period=1000000",
        error);
    ASSERT_TRUE(setup) << error;
    const gpu_description& gpu = setup->gpu;
    EXPECT_EQ(std::tuple(gpu.product_id, gpu.major_revision, gpu.minor_revision, gpu.version_status),
              std::tuple(0x9004U, 1, 2, 3));
    EXPECT_EQ(gpu.core_group_masks, (std::vector<std::uint64_t>{0x3f, 0x3c0}));
    EXPECT_EQ(std::tuple(gpu.l2_slices, gpu.bus_width_bytes, gpu.clock_hz, gpu.kernel_version.minor),
              std::tuple(2, 32U, 500'000'000U, 28));
    EXPECT_EQ(std::tuple(setup->present, setup->source, setup->period_ns),
              std::tuple(true, source_kind::formula, millisecond));

    EXPECT_EQ(parse_configuration("cores=7", error)->gpu.core_group_masks, std::vector<std::uint64_t>{7});
    EXPECT_EQ(parse_configuration("", error)->gpu.core_mask(), gpu_description{}.core_mask());
    EXPECT_FALSE(parse_configuration("none", error)->present);
}

TEST(Configuration, MistakesAreNamed) {
    const std::pair<const char*, const char*> cases[] = {
        {"l2=4,colour=red", "\"colour=red\""},
        {"l2=256", "\"l2=256\""},
        {"l2=-1", "\"l2=-1\""},
        {"l2=", "\"l2=\""},
        {"l2", "\"l2\""},
        {"l2=4,l2=4", "\"l2=4\""},
        {"l2=4,", "\"\""},
        {",", "\"\""},
        {"none,l2=4", "\"none\""},
        {"id=0x", "\"id=0x\""},
        {"id=0x100000000", "\"id=0x100000000\""},
        {"id=9002h,l2=4", "\"id=9002h\""},
        {"id= 1", "\"id= 1\""},
        {"bus=12", "\"bus=12\""},
        {"version=11", "\"version=11\""},
        {"version=11.33.1", "\"version=11.33.1\""},
        {"groups=1:", "\"groups=1:\""},
        {"groups=1:1:1:1:1:1:1:1:1:1:1:1:1:1:1:1:1", "\"groups=1:1"},
        {"groups=1:2,cores=7", "\"groups\""},
        {"source=film", "\"source=film\""},
        {"period=0", "\"period=0\""},
        {"period=4294967296", "\"period=4294967296\""},
        {"clock=0", "\"clock=0\""},
    };
    for (const auto& [text, item] : cases) {
        std::string error;
        EXPECT_FALSE(parse_configuration(text, error)) << text;
        EXPECT_NE(error.find(item), std::string::npos) << text << ": " << error;
        EXPECT_EQ(error.find('\n'), std::string::npos);
    }
    ::setenv("VIRTUAL_GPU", "l2=4,colour=red", 1);
    EXPECT_EXIT(read_environment(), testing::ExitedWithCode(2), "^VIRTUAL_GPU: bad item \"colour=red\".*\n$");
    ::unsetenv("VIRTUAL_GPU");
}

}  // namespace
}  // namespace qel::vexa::virtual_gpu
