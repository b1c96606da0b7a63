// The reader over the kernel driver: every word and every number of the samples that the virtual GPU's driver
// takes, and every way in which a run of samples ends.

#include "counterfeed/src/periodic_hwc_reader.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <limits>
#include <span>
#include <thread>

#include "base/vexa_base_hwcnt_reader_backend_vinstr.h"
#include "virtual_gpu/counter_reader.h"
#include "virtual_gpu/machine.h"

namespace {

using namespace qel::vexa;  // NOLINT(google-build-using-namespace)
using counterfeed::periodic_hwc_reader;
using virtual_gpu::gpu_description;
using virtual_gpu::request_kind;
namespace machine = virtual_gpu::machine;

// What get_buffer gives in place of the kernel driver's samples, and then interrupts.
struct scripted_result {
    base_hwcnt_get_result result;
    base_hwcnt_sample sample;
};
std::span<const scripted_result> script;

base_hwcnt_get_result get_scripted(void* /*state*/, base_hwcnt_sample* sample, std::int32_t timeout) {
    EXPECT_EQ(timeout, -1);
    if (script.empty()) {
        return BASE_HWCNT_INTERRUPTED;
    }
    EXPECT_EQ(sample->timestamp, 0U) << "not zeroed";
    const scripted_result& next = script.front();
    script = script.subspan(1);
    *sample = next.sample;
    return next.result;
}

}  // namespace

// The linker puts these in each other's place. There is only the one backend, and its values have 32 bits.
extern "C" void __real_base_hwcnt_reader_backend_vinstr_create(base_hwcnt_reader_operations* backend);
extern "C" void __wrap_base_hwcnt_reader_backend_vinstr_create(base_hwcnt_reader_operations* backend) {
    __real_base_hwcnt_reader_backend_vinstr_create(backend);
    if (!script.empty()) {
        backend->get_buffer = get_scripted;
        backend->put_buffer = [](void*) { return BASE_SUCCESS; };
    }
}

namespace {

constexpr std::chrono::nanoseconds period = std::chrono::milliseconds(3);

struct delivered_sample {
    std::uint64_t timestamp, delta, cycles;
    std::vector<std::uint32_t> words;

    // As the formula has the sample of this number.
    bool is_number(std::uint64_t number) const {
        for (std::size_t i = 0; i < words.size(); ++i) {
            const std::uint32_t header[] = {static_cast<std::uint32_t>(timestamp),
                                            static_cast<std::uint32_t>(timestamp >> 32), 0xffffffff, 0};
            const std::size_t offset = i % 64;
            if (words[i] !=
                (offset < 4 ? header[offset] : virtual_gpu::formula_word(number, i / 64, offset))) {
                return false;
            }
        }
        return true;
    }
};

class PeriodicReader : public testing::Test {
protected:
    PeriodicReader() { set_gpu({}); }
    ~PeriodicReader() override {
        EXPECT_EQ(machine::open_now(), virtual_gpu::open_counts{});
        machine::reset();
    }

    void set_gpu(const gpu_description& gpu) {
        machine::reset();
        machine::add_node(0, gpu);
        word_count_ = virtual_gpu::sample_layout(gpu).word_count();
    }

    // The samples of one run, which ends by itself or with an interrupt in the callback of the last one.
    std::vector<delivered_sample> run(
        periodic_hwc_reader& reader, std::size_t most, const std::function<void()>& in_each = [] {}) const {
        std::vector<delivered_sample> result;
        reader.process_buffers_until_interrupted([&](std::uint64_t timestamp, std::uint64_t delta,
                                                     std::uint64_t cycles, const std::uint32_t* words) {
            result.push_back({timestamp, delta, cycles, {words, words + word_count_}});
            in_each();
            if (result.size() == most) {
                reader.interrupt();
            }
        });
        return result;
    }

    static std::size_t requests_of(request_kind kind) {
        std::size_t result = 0;
        for (const virtual_gpu::request_record& request : machine::requests()) {
            result += request.kind == kind ? 1U : 0U;
        }
        return result;
    }

    std::error_code ec_;
    std::size_t word_count_ = 0;
};

TEST_F(PeriodicReader, EveryWordArrivesInEveryLayoutAndForm) {
    const struct {
        std::vector<std::uint64_t> groups;
        std::uint8_t l2_slices;
        std::size_t samples;
    } layouts[] = {
        {{1}, 0, 4},           {{0b1011}, 1, 80},           {{0x8000'0001}, 2, 4},
        {{0x3ff}, 4, 4},       {{0b11, 0b1111'0000}, 3, 4}, {{0xffff'ffff}, 8, 4},
        {{1ULL << 47}, 16, 4}, {{~0ULL}, 255, 4},
    };
    const struct {
        std::uint32_t features;
        bool is_legacy, has_cycles;
    } forms[] = {{0, false, true}, {1, false, true}, {2, false, true},
                 {3, false, true}, {3, true, true},  {1, false, false}};
    for (const auto& layout : layouts) {
        for (const auto& form : forms) {
            gpu_description gpu{.core_group_masks = layout.groups, .loses_samples = false};
            gpu.l2_slices = layout.l2_slices;
            gpu.reader_features = form.features;
            gpu.is_legacy = form.is_legacy;
            gpu.has_cycles = form.has_cycles;
            gpu.counter_hardware_version = 0x10203 + form.features;
            set_gpu(gpu);

            periodic_hwc_reader reader(period, ec_);
            ASSERT_TRUE(reader.is_initialized() && !ec_);
            EXPECT_EQ(reader.get_hwver(), gpu.counter_hardware_version);
            ASSERT_TRUE(reader.begin_sampling_periodic());
            // A consumer that is late now and then still gets everything.
            const auto samples = run(reader, layout.samples, [n = 0]() mutable {
                if (++n % 25 == 0) {
                    std::this_thread::sleep_for(10 * period);
                }
            });
            ASSERT_EQ(samples.size(), layout.samples);
            for (const request_kind kind : {request_kind::get_buffer, request_kind::put_buffer}) {
                EXPECT_EQ(requests_of(kind), samples.size() + 1);
            }
            for (std::size_t number = 1; number <= samples.size(); ++number) {
                const delivered_sample& sample = samples[number - 1];
                ASSERT_TRUE(sample.is_number(number)) << number;
                EXPECT_EQ(sample.delta, static_cast<std::uint64_t>(period.count()));
                EXPECT_TRUE(number == 1 || sample.timestamp == samples[number - 2].timestamp + sample.delta);
                const std::uint64_t with_top = form.has_cycles ? virtual_gpu::formula_cycles(number) : 0;
                EXPECT_EQ(sample.cycles, form.is_legacy || form.features == 0 ? 0
                                         : form.features == 2                 ? virtual_gpu::unfilled_cycles
                                                                              : with_top);
            }
        }
    }
}

TEST_F(PeriodicReader, PeriodsAndTheKernelsInterval) {
    for (const std::int64_t given :
         {1LL, 0xffff'ffffLL, 0LL, -1LL, 0x1'0000'0000LL, std::numeric_limits<long long>::min()}) {
        machine::clear_requests();
        std::error_code ec;
        periodic_hwc_reader reader(std::chrono::nanoseconds(given), ec);
        const bool is_good = given == 1 || given == 0xffff'ffff;
        EXPECT_EQ(ec, is_good ? std::error_code() : std::error_code(22, std::generic_category())) << given;
        EXPECT_EQ(reader.is_initialized(), is_good);
        EXPECT_EQ(machine::requests().empty(), !is_good);
        EXPECT_EQ(reader.begin_sampling_periodic(), is_good);
        if (is_good) {
            EXPECT_EQ(machine::requests().back().value, static_cast<std::uint64_t>(given));
        }
    }
}

// Nothing of the error code tells, and nothing is left open.
TEST_F(PeriodicReader, OneThatCannotBeSetUpDoesNothing) {
    for (const request_kind kind :
         {request_kind::set_flags, request_kind::reader_setup, request_kind::map_ring}) {
        machine::fail(kind, EIO);
        std::error_code ec(EBUSY, std::generic_category());
        periodic_hwc_reader reader(period, ec);
        EXPECT_EQ(ec, std::error_code(EBUSY, std::generic_category()));
        EXPECT_EQ(machine::open_now(), virtual_gpu::open_counts{});
        machine::clear_requests();
        EXPECT_FALSE(reader.is_initialized());
        EXPECT_EQ(reader.get_hwver(), 0U);
        EXPECT_FALSE(reader.begin_sampling_periodic());
        reader.interrupt();
        EXPECT_TRUE(run(reader, 1).empty());
        EXPECT_TRUE(machine::requests().empty());
    }
}

TEST_F(PeriodicReader, BeginsOnce) {
    periodic_hwc_reader reader(period, ec_);
    EXPECT_TRUE(run(reader, 1).empty()) << "before it has begun";
    for (const auto& [kind, nth] :
         {std::pair{request_kind::clear, 1U}, {request_kind::clear, 2U}, {request_kind::set_interval, 1U}}) {
        machine::fail(kind, EIO, nth);
        EXPECT_FALSE(reader.begin_sampling_periodic());
        EXPECT_TRUE(run(reader, 1).empty());
    }
    EXPECT_TRUE(reader.begin_sampling_periodic());
    EXPECT_EQ(run(reader, 2).size(), 2U);
    machine::clear_requests();
    EXPECT_FALSE(reader.begin_sampling_periodic());
    EXPECT_TRUE(machine::requests().empty());
}

// An interrupt goes before the samples, and those that are there stay for the next run, whose first sample is
// its time base again.
TEST_F(PeriodicReader, InterruptsAtAnyTime) {
    periodic_hwc_reader reader(period, ec_);
    reader.interrupt();  // long before
    ASSERT_TRUE(reader.begin_sampling_periodic());
    reader.interrupt();
    EXPECT_TRUE(run(reader, 9).empty());
    EXPECT_EQ(requests_of(request_kind::get_buffer), 0U);
    std::uint64_t number = 0;
    for (int round = 0; round < 60; ++round) {
        std::thread other([&reader, round] {
            std::this_thread::sleep_for(std::chrono::microseconds(round * 300));
            reader.interrupt();
        });
        machine::clear_requests();
        for (const delivered_sample& sample : run(reader, 4)) {
            EXPECT_TRUE(sample.is_number(++number)) << number;
        }
        number += requests_of(request_kind::get_buffer) > 0 ? 1 : 0;
        other.join();
        reader.interrupt();  // too late for this run, and not for the next
        EXPECT_TRUE(run(reader, 9).empty());
    }
    EXPECT_GT(number, 60U);
}

// A claimed buffer that can't be given back ends the run with the sample behind it, and so does every failure
// of the wait.
TEST_F(PeriodicReader, FailuresEndTheRun) {
    const struct {
        request_kind kind;
        unsigned nth;
        std::size_t callbacks;
    } cases[] = {{request_kind::put_buffer, 1, 0},
                 {request_kind::put_buffer, 3, 2},
                 {request_kind::get_buffer, 1, 0},
                 {request_kind::get_buffer, 3, 1},
                 {request_kind::poll, 3, 1}};
    for (const auto& c : cases) {
        periodic_hwc_reader reader(period, ec_);
        ASSERT_TRUE(reader.begin_sampling_periodic());
        machine::fail(c.kind, EIO, c.nth);
        EXPECT_EQ(run(reader, 9).size(), c.callbacks);
    }
    periodic_hwc_reader reader(period, ec_);
    ASSERT_TRUE(reader.begin_sampling_periodic());
    // What the ring holds by then still comes, at most all of it.
    EXPECT_LT(run(reader, 40, machine::hang_up_readers).size(), 40U);
}

// Values of 64 bits, and what else the driver's own readers never give.
TEST_F(PeriodicReader, NarrowsWideSamples) {
    constexpr std::uint64_t first[] = {0xffff'fffe, 0xffff'ffff, 0x1'0000'0000};
    constexpr std::uint64_t second[] = {0, ~0ULL, 7};
    constexpr std::uint32_t in_place[] = {1, 2};
    const scripted_result timeout{BASE_HWCNT_TIMEOUT, {}};
    const auto sample = [&](std::uint64_t timestamp, const void* one, const void* other, std::uint32_t blocks,
                            std::uint32_t values) {
        return scripted_result{BASE_HWCNT_SAMPLE_READY,
                               {.data_is_u64 = static_cast<std::uint8_t>(one != in_place ? 1 : 0),
                                .blocks = {one, other},
                                .num_blocks = blocks,
                                .values_per_block = values,
                                .sample_size = 0,
                                .timestamp = timestamp,
                                .event_id = 0,
                                .cycles_top = timestamp / 2,
                                .cycles_shader = 0}};
    };
    const scripted_result results[] = {timeout,
                                       sample(100, first, nullptr, 1, 1),
                                       timeout,
                                       sample(104, first, second, 2, 3),
                                       sample(102, second, nullptr, 1, 2),
                                       sample(110, nullptr, nullptr, 0, 3),
                                       sample(111, first, second, 2, 0),
                                       sample(112, in_place, nullptr, 1, 2)};
    script = results;
    periodic_hwc_reader reader(period, ec_);
    ASSERT_TRUE(reader.begin_sampling_periodic());
    struct expected_sample {
        std::uint64_t timestamp, delta;
        std::vector<std::uint32_t> words;
    };
    const expected_sample expected[] = {{104, 4, {0xffff'fffe, 0xffff'ffff, 0xffff'ffff, 0, 0xffff'ffff, 7}},
                                        {102, ~0ULL - 1, {0, 0xffff'ffff}},
                                        {110, 8, {}},
                                        {111, 1, {}},
                                        {112, 1, {1, 2}}};
    std::size_t n = 0;
    reader.process_buffers_until_interrupted(
        [&](std::uint64_t timestamp, std::uint64_t delta, std::uint64_t cycles, const std::uint32_t* words) {
            ASSERT_LT(n, std::size(expected));
            const expected_sample& e = expected[n++];
            EXPECT_EQ(timestamp, e.timestamp);
            EXPECT_EQ(delta, e.delta);
            EXPECT_EQ(cycles, e.timestamp / 2);
            EXPECT_EQ(std::vector(words, words + e.words.size()), e.words);
            EXPECT_EQ(words == in_place, timestamp == 112);
        });
    EXPECT_EQ(n, std::size(expected));

    const scripted_result too_large[] = {results[1], sample(2, first, nullptr, 0x100'0000, 64)};
    script = too_large;
    EXPECT_EXIT(run(reader, 1), testing::KilledBySignal(SIGABRT), "");
    script = results;
    EXPECT_EXIT(reader.process_buffers_until_interrupted({}), testing::KilledBySignal(SIGABRT), "");
    script = {};
}

}  // namespace
