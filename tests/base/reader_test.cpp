// The reader of hardware counters: its stages, its buffers, and what wakes it.
#include <gtest/gtest.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>

#include "base/vexa_base_hwcnt_reader.h"
#include "tests/support/answers.h"
#include "tests/support/failing_calls.h"
#include "tests/support/resources.h"
#include "virtual_gpu/counter_reader.h"
#include "virtual_gpu/machine.h"

namespace {

using namespace qel::vexa::virtual_gpu;  // NOLINT(google-build-using-namespace)
using test_support::calls;
using test_support::change_answer;
using test_support::held_resources;

bool eventfd_fails = false;

constexpr std::uint32_t period = 1'000'000;
constexpr std::uint32_t all = 0xffff'ffff;

// A context on a virtual GPU, and readers on it.
class counter_reader_of : public testing::Test {
protected:
    ~counter_reader_of() override {
        close();
        machine::reset();
        EXPECT_EQ(machine::open_now(), open_counts{});
        EXPECT_TRUE(test_support::nothing_left(before_));
    }

    void open(const gpu_description& gpu) {
        close();
        machine::reset();
        machine::add_node(0, gpu);
        ASSERT_EQ(base_context_init_for_instance(&ctx, 2, 0), 1U);
        machine::clear_requests();
    }

    base_result init(std::uint32_t reader_period = period, std::uint32_t buffers = 32) {
        return base_hwcnt_reader_init(&reader, &ctx, buffers, all, all, all, all, reader_period);
    }

    // One sample, on demand.
    void dump() { ASSERT_EQ(reader->backend.sample_manual(reader->state), BASE_SUCCESS); }
    base_hwcnt_get_result get(std::int32_t timeout = 0) {
        return base_hwcnt_reader_get_buffer(reader, &sample, timeout);
    }
    base_result put() { return base_hwcnt_reader_put_buffer(reader); }

    void close() {
        if (reader != nullptr) {
            base_hwcnt_reader_term(reader);
            reader = nullptr;
        }
        if (ctx.tracking_page != nullptr) {
            base_context_term(&ctx);
        }
        ctx = {};
    }

    base_context ctx{};
    base_hwcnt_reader* reader = nullptr;
    base_hwcnt_sample sample{};

private:
    held_resources before_ = held_resources::now();
};

TEST_F(counter_reader_of, every_stage_undoes_those_before_it) {
#ifdef __ANDROID__
    GTEST_SKIP() << "the C++ library is in the program there, and its memory would fail as well";
#endif
    using enum request_kind;
    struct {
        const char* what;
        request_kind refused = unknown;
        int failing_malloc = 0;
        gpu_description gpu = {};
    } const cases[] = {
        {"the front", unknown, 1},
        {"the state", unknown, 2},
        {"setup", reader_setup},
        {"legacy version", get_api_version, 0, {.is_legacy = true}},
        {"another version", unknown, 0, {.reader_api_version = 2}},
        {"another legacy version", unknown, 0, {.reader_api_version = 2, .is_legacy = true}},
        {"sample size", get_sample_size},
        {"hardware version", get_hardware_version},
        {"ring", map_ring},
        {"eventfd"},
    };
    for (const auto& [what, refused, failing_malloc, gpu] : cases) {
        SCOPED_TRACE(what);
        this->open(gpu);
        const held_resources before = held_resources::now();
        const int blocks = calls.blocks;
        machine::fail(refused, EIO);
        calls.failing_malloc = failing_malloc;
        eventfd_fails = &what == &std::end(cases)[-1].what;
        EXPECT_EQ(init(), failing_malloc == 2 ? 2U : 3U);
        eventfd_fails = false;
        EXPECT_EQ(reader, nullptr);
        EXPECT_EQ(machine::open_now(),
                  (open_counts{.nodes = 1, .readers = 0, .tracking_pages = 1, .rings = 0}));
        EXPECT_EQ(held_resources::now().descriptors, before.descriptors);
        EXPECT_EQ(calls.blocks, blocks);
        ASSERT_EQ(init(), gpu.reader_api_version == 1 ? BASE_SUCCESS : BASE_FAILURE);
    }
}

TEST_F(counter_reader_of, requests_of_a_life) {
    struct {
        bool is_legacy;
        std::uint32_t features;
        std::vector<std::uint32_t> numbers;
    } const cases[] = {
        {false, 0, {0x4008beff, 0x8010be20, 0x4010be21}},
        {false, 1, {0x4008beff, 0x8020be20, 0x4020be21}},
        {false, 2, {0x4008beff, 0x8020be20, 0x4020be21}},
        {false, 0xffff'fffc, {0x4008beff, 0x8010be20, 0x4010be21}},
        {true, 3, {0x4008beff, 0x4004beff, 0x8010be20, 0x4010be21}},
    };
    for (const auto& [is_legacy, features, numbers] : cases) {
        const bool has_top = !is_legacy && (features & 3) != 0, has_shader = has_top && (features & 2) != 0;
        SCOPED_TRACE(features);
        open({.reader_features = features, .is_legacy = is_legacy, .counter_hardware_version = 0x12345});
        // What a driver leaves behind where it refuses or isn't asked counts for nothing.
        change_answer = [](unsigned long number, void* argument, int result) {
            if (number == 0x4004'beff || (number == 0x4008'beff && result != 0)) {
                static_cast<base_hwcnt_reader_api_record*>(argument)->features = 3;
            }
            return result;
        };
        ASSERT_EQ(init(0), BASE_SUCCESS);
        change_answer = nullptr;
        EXPECT_EQ(base_hwcnt_reader_get_hwver(reader), 0x12345U);
        EXPECT_EQ(reader->backend.get_features(reader->state), is_legacy ? 0 : features);
        EXPECT_EQ(reader->backend.get_sample_size(reader->state), 16U * 256);
        EXPECT_EQ(base_hwcnt_reader_clear(reader), BASE_SUCCESS);
        dump();
        ASSERT_EQ(get(-1), BASE_HWCNT_SAMPLE_READY);
        const std::uint64_t top = formula_cycles(0);
        // With the second bit alone the first count is as the kernel left it.
        EXPECT_EQ(sample.cycles_top, !has_top ? 0 : (features & 1) != 0 ? top : unfilled_cycles);
        EXPECT_EQ(sample.cycles_shader, has_shader ? shader_cycles(top) : 0);
        EXPECT_EQ(sample.event_id, event_dump);
        EXPECT_EQ(sample.sample_size, 16U * 256);
        EXPECT_EQ(put(), BASE_SUCCESS);

        std::vector<std::uint32_t> seen;
        for (const request_record& request : machine::requests()) {
            const std::uint32_t index = request.number & 0xff;
            if ((request.number >> 8 & 0xff) == 0xbe && index >= 0x20 && index != 0x30) {
                seen.push_back(request.number);
            }
            if (request.kind == request_kind::reader_setup) {
                std::vector<std::byte> record(20, std::byte{0xff});
                std::fill_n(record.begin(), 4, std::byte{});
                record[0] = std::byte{32};
                EXPECT_EQ(request.argument, record);
            }
            if (request.kind == request_kind::put_buffer) {
                ASSERT_GE(request.argument.size(), 16U);
                EXPECT_EQ(std::memcmp(request.argument.data(), &sample.timestamp, 8), 0);
            }
        }
        EXPECT_EQ(seen, numbers);
    }
}

TEST_F(counter_reader_of, blocks_lie_back_to_back) {
    struct {
        std::uint64_t cores;
        std::uint8_t slices;
        std::uint32_t blocks;
    } const cases[] = {{0b1011, 1, 7}, {1, 0, 3}, {1ULL << 63, 255, 321}};
    for (const auto& [cores, slices, blocks] : cases) {
        SCOPED_TRACE(blocks);
        // Only the first group counts, though there is a core in the second.
        open({.core_group_masks = {cores, 1}, .l2_slices = slices});
        ASSERT_EQ(init(0), BASE_SUCCESS);
        const std::byte* ring = nullptr;
        for (unsigned i = 0; i < 40; ++i) {  // once round the ring and on
            dump();
            std::memset(&sample, 0xff, sizeof sample);
            ASSERT_EQ(get(), BASE_HWCNT_SAMPLE_READY);
            ASSERT_EQ(sample.num_blocks, blocks);
            EXPECT_EQ(sample.values_per_block, 64U);
            EXPECT_EQ(sample.data_is_u64, 0);
            const auto* first = static_cast<const std::byte*>(sample.blocks[0]);
            ring = i == 0 ? first : ring;
            EXPECT_EQ(first, ring + i % 32 * sample.sample_size);
            for (std::uint32_t block = 0; block < BASE_HWCNT_SAMPLE_BLOCKS; ++block) {
                ASSERT_EQ(sample.blocks[block], block < blocks ? first + block * 256 : nullptr);
            }
            ASSERT_EQ(put(), BASE_SUCCESS);
        }
    }
}

// With one block more than the driver's buffers have, the last buffer's last one would lie behind the ring.
TEST_F(counter_reader_of, answers_that_lead_outside_the_ring) {
    open({});
    EXPECT_EQ(init(0, 0), BASE_FAILURE) << "no buffer at all";
    ctx.props.num_l2_slices = 5;
    ASSERT_EQ(init(0, 2), BASE_SUCCESS);
    for (int i = 0; i < 2; ++i) {
        dump();
        ASSERT_EQ(get(), BASE_HWCNT_SAMPLE_READY);
        EXPECT_NE(sample.blocks[sample.num_blocks - 2], nullptr);
        EXPECT_EQ(sample.blocks[sample.num_blocks - 1] == nullptr, i == 1);
        EXPECT_EQ(put(), BASE_SUCCESS);
    }
    change_answer = [](unsigned long number, void* argument, int result) {
        if (number == BASE_REQUEST_GET_BUFFER_LONG || number == BASE_REQUEST_GET_BUFFER_SHORT) {
            static_cast<base_hwcnt_reader_metadata_short*>(argument)->buffer_idx = 2;
        }
        return result;
    };
    dump();
    EXPECT_EQ(get(), BASE_HWCNT_FAILURE);
    change_answer = nullptr;
    EXPECT_EQ(machine::requests().back().kind, request_kind::put_buffer) << "what is no buffer goes back";
}

TEST_F(counter_reader_of, what_holds_a_buffer) {
    open({});
    ASSERT_EQ(init(0), BASE_SUCCESS);
    EXPECT_EQ(get(), 1U);
    EXPECT_EQ(put(), BASE_FAILURE) << "nothing was claimed";
    dump();
    dump();
    sample.event_id = 77;
    machine::fail(request_kind::get_buffer, EIO);
    EXPECT_EQ(get(), BASE_HWCNT_FAILURE);
    EXPECT_EQ(sample.event_id, 77U);
    ASSERT_EQ(get(), BASE_HWCNT_SAMPLE_READY);
    const base_hwcnt_sample first = sample;
    EXPECT_EQ(get(), 3U) << "one is held";
    base_hwcnt_reader_interrupt(reader);
    EXPECT_EQ(std::memcmp(&first, &sample, sizeof sample), 0);
    machine::fail(request_kind::put_buffer, EIO);
    EXPECT_EQ(put(), BASE_FAILURE);
    EXPECT_EQ(get(), BASE_HWCNT_FAILURE) << "not given back";
    EXPECT_EQ(put(), BASE_SUCCESS);
    EXPECT_EQ(get(), BASE_HWCNT_INTERRUPTED);
    EXPECT_EQ(get(), BASE_HWCNT_SAMPLE_READY);
    EXPECT_EQ(put(), BASE_SUCCESS);
    machine::fail(request_kind::poll, ENOMEM);
    EXPECT_EQ(get(), BASE_HWCNT_FAILURE);
    machine::fail(request_kind::poll, EINTR);
    EXPECT_EQ(get(), BASE_HWCNT_TIMEOUT) << "a signal is no failure";
    machine::signal_without_sample();
    EXPECT_EQ(get(), BASE_HWCNT_FAILURE);
    EXPECT_EQ(get(), BASE_HWCNT_TIMEOUT);
    dump();
    machine::hang_up_readers();
    EXPECT_EQ(get(), BASE_HWCNT_SAMPLE_READY) << "an error of the descriptor's is an event";
    EXPECT_EQ(put(), BASE_SUCCESS);
    EXPECT_EQ(get(-1), BASE_HWCNT_FAILURE);
}

TEST_F(counter_reader_of, interrupts_before_and_during_a_wait) {
    open({});
    ASSERT_EQ(init(0), BASE_SUCCESS);
    base_hwcnt_reader_interrupt(reader);
    base_hwcnt_reader_interrupt(reader);
    dump();
    EXPECT_EQ(get(-1), 2U);
    EXPECT_EQ(get(-1), 0U) << "two interrupts, one return";
    EXPECT_EQ(put(), BASE_SUCCESS);
    for (int i = 0; i < 20; ++i) {
        std::thread other([this] { base_hwcnt_reader_interrupt(reader); });
        EXPECT_EQ(get(-1), BASE_HWCNT_INTERRUPTED);
        other.join();
    }
}

TEST_F(counter_reader_of, periodic_and_manual_sampling) {
    const auto sample_periodic = [this](std::uint32_t stop) {
        return base_hwcnt_reader_sample_periodic(reader, stop);
    };
    // A reader is for the one kind of samples or for the other.
    for (const std::uint32_t reader_period : {0U, period}) {
        open({});
        ASSERT_EQ(init(reader_period), BASE_SUCCESS);
        machine::clear_requests();
        EXPECT_TRUE(reader_period == 0 || reader->backend.sample_manual(reader->state) == BASE_FAILURE);
        EXPECT_TRUE(reader_period != 0 || sample_periodic(BASE_HWCNT_SAMPLING_START) == BASE_FAILURE);
        EXPECT_TRUE(reader_period != 0 || sample_periodic(BASE_HWCNT_SAMPLING_STOP) == BASE_FAILURE);
        EXPECT_EQ(sample_periodic(2), BASE_FAILURE);
        EXPECT_TRUE(machine::requests().empty());
    }
    for (const auto& [stop, kind] : {std::pair{BASE_HWCNT_SAMPLING_START, request_kind::clear},
                                     {BASE_HWCNT_SAMPLING_START, request_kind::set_interval},
                                     {BASE_HWCNT_SAMPLING_STOP, request_kind::set_interval},
                                     {BASE_HWCNT_SAMPLING_STOP, request_kind::dump}}) {
        machine::fail(kind, EIO);
        EXPECT_EQ(sample_periodic(stop), BASE_FAILURE);
    }
    machine::fail(request_kind::clear, EIO);
    EXPECT_EQ(base_hwcnt_reader_clear(reader), BASE_FAILURE);
    machine::clear_requests();
    ASSERT_EQ(sample_periodic(0), 0U);
    ASSERT_EQ(get(-1), BASE_HWCNT_SAMPLE_READY);
    ASSERT_EQ(sample_periodic(1), 0U);
    std::vector<std::pair<request_kind, std::uint64_t>> seen;
    for (const request_record& request : machine::requests()) {
        if (request.kind != request_kind::poll && request.kind != request_kind::get_buffer) {
            seen.emplace_back(request.kind, request.value);
        }
    }
    const decltype(seen) expected = {{request_kind::clear, 0},
                                     {request_kind::set_interval, period},
                                     {request_kind::set_interval, 0},
                                     {request_kind::dump, 0}};
    EXPECT_EQ(seen, expected);
}

}  // namespace

extern "C" {

int __real_eventfd(unsigned count, int flags);
int __wrap_eventfd(unsigned count, int flags) {
    if (eventfd_fails) {
        errno = EMFILE;
        return -1;
    }
    return __real_eventfd(count, flags);
}

}  // extern "C"
