// The counter readers of the virtual GPU, through the C library's own calls.

#include "virtual_gpu/counter_reader.h"

#include <sys/stat.h>
#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <thread>
#include <tuple>
#include <vector>

#include "driver_client.h"
#include "gtest/gtest.h"
#include "virtual_gpu/clock.h"
#include "virtual_gpu/machine.h"

namespace qel::vexa::virtual_gpu {
namespace {

using metadata = driver_client::metadata;

constexpr std::uint32_t millisecond = 1'000'000;
constexpr open_counts nothing_open{};

// A counter of the sample's last block.
std::uint32_t last_word(const driver_client& client, const metadata& of) {
    return client.words(of)[client.sample_size / 4 - 1];
}
std::uint32_t last_formula_word(const driver_client& client, std::uint64_t number) {
    return formula_word(number, client.sample_size / 256 - 1, 63);
}

TEST(CounterReader, AnswersByteForByteInEveryForm) {
    struct row {
        gpu_description gpu;
        std::size_t sample_size;
        std::uint64_t top;  // of the sample with number 1
        std::uint64_t shader;
    };
    const std::uint64_t cycles = formula_cycles(1);
    const row rows[] = {
        {{.core_group_masks = {0b1011}, .l2_slices = 2, .reader_features = 3},
         2048,
         cycles,
         shader_cycles(cycles)},
        {{.core_group_masks = {1, 0x8000}, .l2_slices = 8, .reader_features = 1},
         6656,
         cycles,
         unfilled_cycles},
        {{.core_group_masks = {0}, .l2_slices = 1, .reader_features = 2},
         768,
         unfilled_cycles,
         shader_cycles(cycles)},
        {{.reader_features = 3, .counter_hardware_version = 77, .has_cycles = false}, 4096, 0, 0},
        {{.reader_features = 0}, 4096, 0, 0},
        {{.is_legacy = true}, 4096, 0, 0},
    };
    for (const row& one : rows) {
        const gpu_description& gpu = one.gpu;
        machine::add_node(0, gpu);
        {
            const driver_client client(4);
            ASSERT_EQ(client.error, 0);
            EXPECT_EQ(client.sample_size, one.sample_size);
            std::uint32_t words[2] = {0x5a, 0x5a};
            EXPECT_EQ(ask(client.reader, 0x8004be00, words), 0);
            EXPECT_EQ(words[0], gpu.counter_hardware_version);
            EXPECT_EQ(ask(client.reader, 0x4004beff, words), 0);
            EXPECT_EQ(std::tuple(words[0], words[1]), std::tuple(1U, 0x5aU));
            EXPECT_EQ(ask(client.reader, 0x4008beff, words), gpu.is_legacy ? ENOTTY : 0);
            EXPECT_EQ(words[1], gpu.is_legacy ? 0x5aU : gpu.reader_features);

            const bool is_long = gpu.reader_features != 0 && !gpu.is_legacy;
            const std::uint32_t get = is_long ? 0x8020be20 : 0x8010be20;
            const std::uint32_t put = is_long ? 0x4020be21 : 0x4010be21;
            EXPECT_EQ(ask(client.reader, 0x4004be11, 0), 0);
            const std::uint64_t before = raw_clock();
            metadata record{};
            for (std::uint32_t i = 0; i < 2; ++i) {
                EXPECT_EQ(client.wait(0), 0);
                EXPECT_EQ(ask(client.reader, get, &record), EAGAIN);
                EXPECT_EQ(ask(client.reader, 0x4004be10, 0), 0);
                EXPECT_EQ(client.wait(), POLLIN);
                EXPECT_EQ(ask(client.reader, get, &record), 0);
                metadata wrong = record;
                EXPECT_EQ(ask(client.reader, get, &wrong), EBUSY);
                wrong.buffer ^= 1;
                EXPECT_EQ(ask(client.reader, put, &wrong), EINVAL);
                EXPECT_NE(ask(client.reader, put ^ 0x300000, &record), 0) << "the other form";
                EXPECT_EQ(std::tuple(record.event, record.buffer), std::tuple(event_dump, i));
                const std::uint32_t* sample = client.words(record);
                EXPECT_EQ(sample[0], static_cast<std::uint32_t>(record.timestamp));
                EXPECT_EQ(sample[1], record.timestamp >> 32);
                for (std::size_t word = header_words; word < one.sample_size / 4; ++word) {
                    if (word % 64 >= header_words) {
                        ASSERT_EQ(sample[word], formula_word(i, word / 64, word % 64)) << word;
                    }
                }
                metadata back = record;
                back.cycles[1] = 0;
                EXPECT_EQ(ask(client.reader, put, &back), 0);
                EXPECT_EQ(ask(client.reader, put, &back), EINVAL) << "it is given back already";
            }
            EXPECT_GE(record.timestamp, before);
            EXPECT_LE(record.timestamp, raw_clock());
            EXPECT_EQ(record.cycles[0], one.top);
            EXPECT_EQ(record.cycles[1], one.shader);
            EXPECT_EQ(machine::open_now(), (open_counts{1, 1, 1, 1}));
        }
        EXPECT_EQ(machine::open_now(), nothing_open);
    }
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
    const std::tuple<int, std::size_t, int, int, off_t> mappings[] = {
        {client.node, 8192, PROT_NONE, MAP_SHARED, 0x3000},
        {client.node, 4096, PROT_READ, MAP_SHARED, 0x3000},
        {client.node, 4096, PROT_NONE, MAP_PRIVATE, 0x3000},
        {client.node, 4096, PROT_NONE, MAP_SHARED, 0},
        {client.reader, client.ring_size - 1, PROT_READ, MAP_PRIVATE, 0},
        {client.reader, client.ring_size, PROT_READ | PROT_WRITE, MAP_PRIVATE, 0},
        {client.reader, client.ring_size, PROT_READ, MAP_SHARED, 0},
        {client.reader, client.ring_size, PROT_READ, MAP_PRIVATE, 4096},
    };
    for (const auto& [fd, length, protection, flags, offset] : mappings) {
        EXPECT_EQ(::mmap(nullptr, length, protection, flags, fd, offset), MAP_FAILED);
        EXPECT_EQ(errno, EINVAL);
    }
    const int early = ::open("/dev/vexa0", O_RDWR);
    EXPECT_EQ(::mmap(nullptr, 4096, PROT_NONE, MAP_SHARED, early, 0x3000), MAP_FAILED);
    EXPECT_EQ(errno, EPERM);
    ::close(early);
    // Other mappings are not the machine's business.
    const int zeros = ::open("/dev/zero", O_RDONLY);
    void* page = ::mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE, zeros, 0);
    ASSERT_NE(page, MAP_FAILED);
    ::munmap(page, 4096);
    ::close(zeros);
}

TEST(CounterReader, DisabledCountersStayZero) {
    machine::add_node(0, {.core_group_masks = {1}, .l2_slices = 1});
    driver_client client;
    client.close_reader();
    ::munmap(client.ring, client.ring_size);
    // Of each class one bit, in the order job manager, shader cores, tiler, L2 slices.
    std::uint32_t setup[] = {1, 1U << 1, 1U << 15, 1U << 2, 1U << 3};
    client.reader = ::ioctl(client.node, 0x40148008, setup);
    client.ring_size = client.sample_size;
    client.ring = ::mmap(nullptr, client.ring_size, PROT_READ, MAP_PRIVATE, client.reader, 0);
    ASSERT_EQ(ask(client.reader, 0x4004be10, 0), 0);
    EXPECT_EQ(ask(client.reader, 0x4004be10, 0), EBUSY) << "the only buffer is taken";
    metadata record{};
    EXPECT_EQ(client.get(record), 0);
    const std::uint32_t bits[] = {1, 2, 3, 15};  // by block
    for (std::size_t block = 0; block < 4; ++block) {
        EXPECT_EQ(client.words(record)[block * 64 + 2], 1U << bits[block]);
        for (std::size_t i = header_words; i < 64; ++i) {
            EXPECT_EQ(client.words(record)[block * 64 + i],
                      i / 4 == bits[block] ? formula_word(0, block, i) : 0);
        }
    }
}

// Reads periodic samples and knows what they must be.
class sample_follower {
public:
    explicit sample_follower(const driver_client& client) : client_(client) {}

    // Takes the next sample, and returns the time since the one before.
    std::uint64_t next() {
        metadata record{};
        EXPECT_EQ(client_.wait(), POLLIN);
        EXPECT_EQ(client_.get(record), 0);
        EXPECT_EQ(record.event, event_interval);
        EXPECT_EQ(record.cycles[0], formula_cycles(number_));
        EXPECT_EQ(last_word(client_, record), last_formula_word(client_, number_));
        ++number_;
        EXPECT_EQ(client_.put(record), 0);
        EXPECT_LE(record.timestamp, raw_clock());
        return record.timestamp - std::exchange(due_, record.timestamp);
    }
    std::uint64_t due() const { return due_; }

private:
    const driver_client& client_;
    std::uint64_t number_ = 0;
    std::uint64_t due_ = 0;
};

TEST(CounterReader, SamplesComeAtThePeriod) {
    machine::reset();
    machine::add_node(0, {.core_group_masks = {0xff}, .loses_samples = false});
    const driver_client client;
    const std::uint64_t begin = raw_clock();
    ASSERT_TRUE(client.begin(millisecond));
    sample_follower follower(client);
    follower.next();
    for (int i = 0; i < 300; ++i) {
        EXPECT_EQ(follower.next(), millisecond);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(follower.next(), millisecond) << "this GPU waits for its reader";
    }
    EXPECT_GE(follower.due(), begin + 401U * millisecond);

    EXPECT_EQ(ask(client.reader, 0x4004be30, 0), 0);
    for (metadata record{}; client.wait(0) == POLLIN;) {
        EXPECT_EQ(client.get(record), 0);
        EXPECT_EQ(client.put(record), 0);
    }
    EXPECT_EQ(client.wait(20), 0) << "it was stopped";
    ASSERT_TRUE(client.begin(5 * millisecond));
    sample_follower anew(client);
    anew.next();
    EXPECT_EQ(anew.next(), 5U * millisecond);
    EXPECT_EQ(machine::overruns(), 0U);
}

TEST(CounterReader, WhatNobodyReadsIsLostAndCounted) {
    machine::reset();
    machine::add_node(0, {.core_group_masks = {0xff}});
    const driver_client client(16);
    ASSERT_TRUE(client.begin(millisecond));
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
    sample_follower follower(client);
    follower.next();
    // The sample after those that were lost is as much later. A busy machine can lose more of them.
    std::uint64_t lost = 0;
    for (int i = 0; i < 1000 && (lost == 0 || lost != machine::overruns()); ++i) {
        const std::uint64_t delta = follower.next();
        EXPECT_EQ(delta % millisecond, 0U);
        lost += delta / millisecond - 1;
    }
    EXPECT_GE(lost, 30U);
    EXPECT_EQ(lost, machine::overruns());

    // Faster than any thread: what comes is still whole, and the end is not far.
    machine::reset();
    ASSERT_TRUE(client.begin(1));
    while (machine::overruns() == 0) {
        metadata record{};
        EXPECT_EQ(client.wait(), POLLIN);
        EXPECT_EQ(client.get(record), 0);
        EXPECT_EQ(client.put(record), 0);
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
    ASSERT_TRUE(client.begin(100 * millisecond));
    std::thread other([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        machine::hang_up_readers();
    });
    EXPECT_EQ(client.wait(), POLLHUP);
    EXPECT_EQ(client.get(record), EAGAIN);
    other.join();
}

TEST(CounterReader, ReadersAreIndependentOfEachOther) {
    machine::reset();
    machine::add_node(0, {.core_group_masks = {3}});
    machine::add_node(5, {.core_group_masks = {7}, .own_source = [](const gpu_description&) {
                              return std::make_unique<formula_source>();
                          }});
    const std::size_t threads = 4;
    std::atomic<unsigned> samples{0};
    const auto run = [&samples](std::size_t which) {
        for (int round = 0; round < 8; ++round) {
            driver_client client(8, which % 2 == 0 ? "/dev/vexa0" : "/dev/vexa5");
            ASSERT_TRUE(client.begin(millisecond / 4));
            metadata record{};
            for (std::uint64_t number = 0; number < 20; ++number) {
                ASSERT_EQ(client.wait(), POLLIN);
                ASSERT_EQ(client.get(record), 0);
                ASSERT_EQ(last_word(client, record), last_formula_word(client, number));
                ASSERT_EQ(client.put(record), 0);
                ++samples;
            }
            client.close_reader();  // before its mapping goes, which still shows the samples
            ASSERT_EQ(client.words(record)[2], ~0U);
        }
    };
    std::vector<std::thread> all;
    for (std::size_t i = 0; i < threads; ++i) {
        all.emplace_back(run, i);
    }
    for (std::thread& one : all) {
        one.join();
    }
    EXPECT_EQ(samples, 8U * 20 * threads);
    EXPECT_EQ(machine::open_now(), nothing_open);
}

TEST(CounterReader, AForkedChildTakesNothingFromItsParent) {
    machine::reset();
    machine::add_node(0, {});
    driver_client client;
    ASSERT_TRUE(client.begin(millisecond));
    metadata record{};
    for (std::uint64_t number = 0; number < 60; ++number) {
        ASSERT_EQ(client.wait(), POLLIN);
        ASSERT_EQ(client.get(record), 0);
        EXPECT_EQ(last_word(client, record), last_formula_word(client, number));
        if (number % 20 == 0) {
            const pid_t child = ::fork();
            if (child == 0) {
                std::uint32_t word = 0;
                const bool is_there = ask(client.reader, 0x8004be00, &word) == 0 && word == 5;
                ::close(client.reader);
                ::close(client.node);
                ::_exit(is_there && ask(client.reader, 0x8004be00, &word) != 0 ? 0 : 1);
            }
            int status = -1;
            EXPECT_EQ(::waitpid(child, &status, 0), child);
            EXPECT_EQ(status, 0);
        }
        ASSERT_EQ(client.put(record), 0);
    }
}

TEST(CounterReader, EachCallCanBeMadeToFail) {
    using enum request_kind;
    machine::reset();
    machine::add_node(3, {});
    const std::pair<request_kind, int (*)(driver_client&)> calls[] = {
        {fstat,
         [](driver_client& client) {
             struct ::stat status {};
             return ::fstat(client.node, &status) < 0 ? errno : 0;
         }},
        {get_hardware_version,
         [](driver_client& client) { return ask(client.reader, 0x8004be00, &client.sample_size); }},
        {get_sample_size,
         [](driver_client& client) { return ask(client.reader, 0x8004be01, &client.sample_size); }},
        {clear, [](driver_client& client) { return ask(client.reader, 0x4004be11, 0); }},
        {set_interval, [](driver_client& client) { return ask(client.reader, 0x4004be30, 0); }},
        {get_api_version,
         [](driver_client& client) { return ask(client.reader, 0x4004beff, &client.sample_size); }},
        {poll, [](driver_client& client) { return -std::min(client.wait(0), 0); }},
        {map_tracking_page,
         [](driver_client& client) {
             ::munmap(client.page, 4096);
             client.page = ::mmap(nullptr, 4096, PROT_NONE, MAP_SHARED, client.node, 0x3000);
             return client.page == MAP_FAILED ? errno : 0;
         }},
        {map_ring,
         [](driver_client& client) {
             ::munmap(client.ring, client.ring_size);
             client.ring = ::mmap(nullptr, client.ring_size, PROT_READ, MAP_PRIVATE, client.reader, 0);
             return client.ring == MAP_FAILED ? errno : 0;
         }},
        {dump, [](driver_client& client) { return ask(client.reader, 0x4004be10, 0); }},
        {get_buffer,
         [](driver_client& client) {
             metadata record{};
             ask(client.reader, 0x4004be10, 0);
             const int error = client.get(record);
             return error == 0 ? client.put(record) : error;
         }},
        {put_buffer,
         [](driver_client& client) {
             metadata record{};
             ask(client.reader, 0x4004be10, 0);
             client.get(record);
             const int error = client.put(record);
             // A refusal has no effect.
             return error != 0 && client.put(record) == 0 ? error : 0;
         }},
    };
    for (const auto& [kind, call] : calls) {
        driver_client client(32, "/dev/vexa3");
        machine::fail(kind, ETXTBSY, 2);
        EXPECT_EQ(call(client), 0) << static_cast<int>(kind);
        EXPECT_EQ(call(client), ETXTBSY) << static_cast<int>(kind);
        const auto seen = machine::requests();
        EXPECT_EQ(std::count_if(seen.begin(), seen.end(),
                                [kind = kind](const request_record& one) {
                                    return one.kind == kind && one.instance == 3 && one.result == -ETXTBSY;
                                }),
                  1);
        EXPECT_EQ(call(client), 0) << static_cast<int>(kind);
        machine::clear_requests();
    }
    driver_client client(32, "/dev/vexa3");
    client.wait(-1 + 8);
    const std::pair<std::uint64_t, std::size_t> expected[] = {
        {4096, 0}, {0, 20}, {0, 4}, {client.ring_size, 0}, {7, 0}};
    const auto seen = machine::requests();
    ASSERT_EQ(seen.size(), 8U) << "open, version, flags, and those above";
    for (std::size_t i = 0; i < 5; ++i) {
        EXPECT_EQ(std::pair(seen[i + 3].value, seen[i + 3].argument.size()), expected[i]) << i;
    }
    machine::clear_requests();
    ask(client.reader, 0x4004be30, 0x12345);
    EXPECT_EQ(machine::requests().back().value, 0x12345U);
}

}  // namespace
}  // namespace qel::vexa::virtual_gpu
