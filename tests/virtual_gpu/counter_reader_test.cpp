// The counter readers of the virtual GPU, through the C library's own calls.

#include "virtual_gpu/counter_reader.h"

#include <sys/wait.h>

#include <chrono>
#include <thread>
#include <tuple>

#include "driver_client.h"
#include "gtest/gtest.h"
#include "virtual_gpu/clock.h"
#include "virtual_gpu/machine.h"

namespace qel::vexa::virtual_gpu {
namespace {

using metadata = driver_client::metadata;

constexpr std::uint32_t millisecond = 1'000'000;

// A counter of the sample's last block.
std::uint32_t last_word(const driver_client& client, const metadata& of) {
    return client.words(of)[client.sample_size / 4 - 1];
}
std::uint32_t last_formula_word(const driver_client& client, std::uint64_t number) {
    return formula_word(number, client.sample_size / 256 - 1, 63);
}

TEST(CounterReader, OneBufferIsClaimedAtATimeAndGivenBackAsItCame) {
    for (const bool is_legacy : {false, true}) {
        machine::add_node(0, {.core_group_masks = {0b1011}, .l2_slices = 2, .is_legacy = is_legacy});
        const driver_client client(1);
        ASSERT_EQ(client.error, 0);
        EXPECT_EQ(client.sample_size, 2048U);
        const std::uint32_t get = is_legacy ? 0x8010be20 : 0x8020be20;
        const std::uint32_t put = is_legacy ? 0x4010be21 : 0x4020be21;
        metadata record{};
        for (std::uint32_t number = 0; number < 2; ++number) {
            EXPECT_EQ(ask(client.reader, get, &record), EAGAIN);
            EXPECT_EQ(ask(client.reader, 0x4004be10, 0), 0);
            EXPECT_EQ(ask(client.reader, 0x4004be10, 0), EBUSY) << "the only buffer is taken";
            EXPECT_EQ(ask(client.reader, get, &record), 0);
            metadata wrong = record;
            EXPECT_EQ(ask(client.reader, get, &wrong), EBUSY);
            wrong.buffer ^= 1;
            EXPECT_EQ(ask(client.reader, put, &wrong), EINVAL);
            EXPECT_NE(ask(client.reader, put ^ 0x300000, &record), 0) << "the other form";
            EXPECT_EQ(client.words(record)[1], record.timestamp >> 32);
            EXPECT_EQ(last_word(client, record), last_formula_word(client, number));
            metadata back = record;
            back.cycles[1] = 0;
            EXPECT_EQ(ask(client.reader, put, &back), 0);
            EXPECT_EQ(ask(client.reader, put, &back), EINVAL) << "it is given back already";
        }
        EXPECT_EQ(machine::open_now(), (open_counts{1, 1, 1, 1}));
    }
    EXPECT_EQ(machine::open_now(), open_counts{});
}

TEST(CounterReader, WrongArgumentsAreRefused) {
    machine::add_node(0, {});
    const driver_client client(2);
    const std::tuple<int, std::uint32_t, std::uintptr_t, int> requests[] = {
        {client.reader, 0x4004be10, 1, EINVAL},         {client.reader, 0x4004be11, 1, EINVAL},
        {client.reader, 0x8004be00, 0, EFAULT},         {client.reader, 0x8004be01, 0, EFAULT},
        {client.reader, 0x8020be20, 0, EFAULT},         {client.reader, 0x4010be21, 0, EFAULT},
        {client.reader, 0x4008beff, 0, EFAULT},         {client.reader, 0x4008be10, 0, ENOTTY},
        {client.reader, 0xc0048000, 0, ENOTTY},         {client.node, 0x4004be10, 0, ENOTTY},
        {client.node, 0x40148008, 0, EFAULT},
#ifdef __LP64__
        {client.reader, 0x4004be30, 1UL << 32, EINVAL},
#endif
    };
    for (const auto& [fd, number, argument, error] : requests) {
        EXPECT_EQ(ask(fd, number, argument), error) << std::hex << number;
    }
    for (const std::uint32_t count : {0U, 3U, 33U, 64U}) {
        EXPECT_EQ(driver_client(count).error, EINVAL);
    }
    EXPECT_EQ(::mmap(nullptr, client.ring_size - 1, PROT_READ, MAP_PRIVATE, client.reader, 0), MAP_FAILED);
    EXPECT_EQ(::mmap(nullptr, 4096, PROT_READ, MAP_SHARED, client.node, 0x3000), MAP_FAILED);
}

// Takes the next periodic sample, which must have this number, and returns when it was due.
std::uint64_t next_due(const driver_client& client, std::uint64_t number) {
    metadata record{};
    EXPECT_EQ(client.wait(), POLLIN);
    EXPECT_EQ(client.get(record), 0);
    EXPECT_EQ(record.event, event_interval);
    EXPECT_EQ(record.cycles[0], formula_cycles(number));
    EXPECT_EQ(last_word(client, record), last_formula_word(client, number));
    EXPECT_EQ(client.put(record), 0);
    EXPECT_LE(record.timestamp, raw_clock());
    return record.timestamp;
}

// The sample after those that were lost is as much later. Some GPUs wait for their reader, however slow it
// is.
TEST(CounterReader, SamplesComeAtThePeriodOrAreCountedAsLost) {
    for (const bool loses : {false, true}) {
        machine::reset();
        machine::add_node(0, {.core_group_masks = {0xff}, .loses_samples = loses});
        const driver_client client(16);
        const std::uint64_t begin = raw_clock();
        ASSERT_TRUE(client.begin(millisecond));
        while (raw_clock() < begin + 60U * millisecond) {  // nobody reads the first ones
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        std::uint64_t due = next_due(client, 0), lost = 0;
        EXPECT_GE(due, begin + millisecond);
        for (std::uint64_t number = 1; number < 200 || lost != machine::overruns(); ++number) {
            ASSERT_LT(number, 10'000U);
            const std::uint64_t next = next_due(client, number);
            EXPECT_EQ((next - due) % millisecond, 0U);
            lost += (next - due) / millisecond - 1;
            due = next;
        }
        EXPECT_TRUE(loses ? lost >= 30 : lost == 0) << lost;
        EXPECT_EQ(ask(client.reader, 0x4004be30, 0), 0);
        for (metadata record{}; client.wait(0) == POLLIN;) {
            EXPECT_EQ(client.get(record), 0);
            EXPECT_EQ(client.put(record), 0);
        }
        EXPECT_EQ(client.wait(20), 0) << "it was stopped";
    }
}

TEST(CounterReader, SignalsCanBeDisturbed) {
    machine::add_node(0, {});
    driver_client client;
    metadata record{};
    machine::set_signalling(false);
    EXPECT_EQ(ask(client.reader, 0x4004be10, 0), 0);
    EXPECT_EQ(client.wait(0), 0);
    machine::set_signalling(true);
    machine::signal_without_sample();
    EXPECT_EQ(client.wait(0), POLLIN);
    EXPECT_EQ(client.get(record), 0);
    EXPECT_EQ(client.put(record), 0);
    EXPECT_EQ(client.wait(0), POLLIN);
    EXPECT_EQ(client.get(record), EAGAIN);
    EXPECT_EQ(client.wait(0), 0);
    std::thread other(machine::hang_up_readers);
    EXPECT_EQ(client.wait(), POLLHUP);
    EXPECT_EQ(client.get(record), EAGAIN);
    other.join();
}

TEST(CounterReader, AForkedChildTakesNothingFromItsParent) {
    machine::add_node(0, {});
    const driver_client client;
    ASSERT_TRUE(client.begin(millisecond));
    for (std::uint64_t number = 0; number < 40; ++number) {
        next_due(client, number);
        if (number % 20 == 0) {
            const pid_t child = ::fork();
            if (child == 0) {
                std::uint32_t word = 0;
                const bool is_there = ask(client.reader, 0x8004be00, &word) == 0 && word == 5;
                ::close(client.reader);
                ::_exit(is_there && ask(client.reader, 0x8004be00, &word) != 0 ? 0 : 1);
            }
            int status = -1;
            EXPECT_EQ(::waitpid(child, &status, 0), child);
            EXPECT_EQ(status, 0);
        }
    }
}

}  // namespace
}  // namespace qel::vexa::virtual_gpu
