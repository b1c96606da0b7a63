// The counter readers of the virtual GPU, through the C library's own calls.

#include "virtual_gpu/counter_reader.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <thread>
#include <tuple>

#include "gtest/gtest.h"
#include "virtual_gpu/machine.h"

namespace qel::vexa::virtual_gpu {
namespace {

// 0 or the error number.
template <typename Argument>
int ask(int fd, std::uint32_t number, Argument argument) {
    return ::ioctl(fd, number, argument) < 0 ? errno : 0;
}

// A node, and a counter reader on it where there can be one with so many buffers.
struct client {
    explicit client(std::uint32_t buffers) : node(::open("/dev/vexa0", O_RDWR)) {
        std::uint32_t words[] = {buffers, ~0U, ~0U, ~0U, ~0U};
        EXPECT_EQ(ask(node, 0xc0048000, &words[1]), 0);
        EXPECT_EQ(ask(node, 0x40048001, &words[1]), 0);
        words[1] = ~0U;
        reader = ::ioctl(node, 0x40148008, words);
    }
    ~client() {
        ::close(reader);
        ::close(node);
    }
    client(const client&) = delete;
    client& operator=(const client&) = delete;

    int node;
    int reader;
};

TEST(CounterReader, OneBufferIsClaimedAtATimeAndGivenBackAsItCame) {
    for (const bool is_legacy : {false, true}) {
        machine::add_node(0, {.core_group_masks = {0b1011}, .l2_slices = 2, .is_legacy = is_legacy});
        const client own(1);
        constexpr std::size_t size = 2048;
        std::uint32_t answer = 0;
        EXPECT_EQ(ask(own.reader, 0x8004be01, &answer), 0);
        ASSERT_EQ(answer, size);
        void* const ring = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE, own.reader, 0);
        ASSERT_NE(ring, MAP_FAILED);
        const auto* const words = static_cast<const std::uint32_t*>(ring);
        const std::uint32_t get = is_legacy ? 0x8010be20 : 0x8020be20;
        const std::uint32_t put = is_legacy ? 0x4010be21 : 0x4020be21;
        sample_metadata record{};
        for (std::uint32_t number = 0; number < 2; ++number) {
            EXPECT_EQ(ask(own.reader, get, &record), EAGAIN);
            EXPECT_EQ(ask(own.reader, 0x4004be10, 0), 0);
            EXPECT_EQ(ask(own.reader, 0x4004be10, 0), EBUSY) << "the only buffer is taken";
            EXPECT_EQ(ask(own.reader, get, &record), 0);
            sample_metadata wrong = record;
            EXPECT_EQ(ask(own.reader, get, &wrong), EBUSY);
            wrong.buffer_idx ^= 1;
            EXPECT_EQ(ask(own.reader, put, &wrong), EINVAL);
            EXPECT_NE(ask(own.reader, put ^ 0x300000, &record), 0) << "the other form";
            EXPECT_EQ(words[1], record.timestamp >> 32);
            EXPECT_EQ(words[size / 4 - 1], formula_word(number, size / 256 - 1, 63));
            sample_metadata back = record;
            back.cycles_shader = 0;
            EXPECT_EQ(ask(own.reader, put, &back), 0);
            EXPECT_EQ(ask(own.reader, put, &back), EINVAL) << "it is given back already";
        }
        ::munmap(ring, size);
    }
    EXPECT_EQ(machine::open_now(), open_counts{});
}

TEST(CounterReader, WrongArgumentsAreRefused) {
    machine::add_node(0, {});
    const client own(2);
    const std::tuple<int, std::uint32_t, std::uintptr_t, int> requests[] = {
        {own.reader, 0x4004be10, 1, EINVAL},         {own.reader, 0x4004be11, 1, EINVAL},
        {own.reader, 0x8004be00, 0, EFAULT},         {own.reader, 0x8004be01, 0, EFAULT},
        {own.reader, 0x8020be20, 0, EFAULT},         {own.reader, 0x4010be21, 0, EFAULT},
        {own.reader, 0x4008beff, 0, EFAULT},         {own.reader, 0x4008be10, 0, ENOTTY},
        {own.reader, 0xc0048000, 0, ENOTTY},         {own.node, 0x4004be10, 0, ENOTTY},
        {own.node, 0x40148008, 0, EFAULT},
#ifdef __LP64__
        {own.reader, 0x4004be30, 1UL << 32, EINVAL},
#endif
    };
    for (const auto& [fd, number, argument, error] : requests) {
        EXPECT_EQ(ask(fd, number, argument), error) << std::hex << number;
    }
    for (const std::uint32_t count : {0U, 3U, 33U, 64U}) {
        EXPECT_LT(client(count).reader, 0);
    }
    EXPECT_EQ(::mmap(nullptr, 2 * 4096 - 1, PROT_READ, MAP_PRIVATE, own.reader, 0), MAP_FAILED);
    EXPECT_EQ(::mmap(nullptr, 4096, PROT_READ, MAP_SHARED, own.node, 0x3000), MAP_FAILED);
}

// The sample after those that were lost is as much later.
TEST(CounterReader, SamplesThatFindNoBufferAreCountedAsLost) {
    constexpr std::uint32_t millisecond = 1'000'000;
    machine::reset();
    machine::add_node(0, {});
    const client own(16);
    ASSERT_EQ(ask(own.reader, 0x4004be30, millisecond), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(60));  // nobody reads the first ones
    std::uint64_t due = 0, lost = 0;
    for (unsigned number = 0; lost == 0 || lost != machine::overruns(); ++number) {
        ASSERT_LT(number, 10'000U);
        sample_metadata record{};
        while (ask(own.reader, 0x8020be20, &record) == EAGAIN) {
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
        EXPECT_EQ(ask(own.reader, 0x4020be21, &record), 0);
        EXPECT_EQ(record.event_id, event_interval);
        EXPECT_EQ(record.cycles_top, formula_cycles(number));
        if (number > 0) {
            EXPECT_EQ((record.timestamp - due) % millisecond, 0U);
            lost += (record.timestamp - due) / millisecond - 1;
        }
        due = record.timestamp;
    }
}

}  // namespace
}  // namespace qel::vexa::virtual_gpu
