// Tests of the ring: its making, its order against a model, and many threads at once.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "cutils/ring_buffer/vexa_cutils_ring_buffer.h"
#include "tests/support/failing_calls.h"

extern "C" decltype(pthread_mutex_lock) __real_pthread_mutex_lock;
// Lets other threads see a finished slot before its holder's own commit walk.
extern "C" int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
    std::this_thread::yield();
    return __real_pthread_mutex_lock(mutex);
}

namespace {

using test_support::calls;

TEST(RingBuffer, ComesUpWholeOrNotAtAll) {
    // Only eight bits of an order count. Order 31 wants more memory than there is: also 2^32 bytes, which
    // must not become none.
    const struct {
        std::uint32_t entry_size, order;
        int failing_mutex_init, failing_malloc;
        std::uint32_t result, entries;
    } cases[] = {{8, 0, 0, 0, 0, 1},  {1, 1, 0, 0, 0, 2},    {512, 4, 0, 0, 0, 16},  {0, 3, 0, 0, 0, 8},
                 {8, 32, 0, 0, 0, 0}, {8, ~0U, 0, 0, 0, 0},  {8, 0x100, 0, 0, 0, 1}, {0, 31, 0, 0, 2, 0},
                 {1, 31, 0, 0, 2, 0}, {~0U, 31, 0, 0, 2, 0}, {2, 31, 0, 0, 2, 0},    {8, 2, 1, 0, 3, 0},
                 {8, 2, 2, 0, 3, 0},  {8, 2, 0, 1, 2, 0},    {8, 2, 0, 2, 2, 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        cutils_ring_buffer ring;
        std::memset(static_cast<void*>(&ring), 0xa5, sizeof ring);
        const int mutexes = calls.mutexes, blocks = calls.blocks;
        calls.failing_mutex_init = c.failing_mutex_init;
        calls.failing_malloc = c.failing_malloc;
        ASSERT_EQ(cutils_ring_buffer_init(&ring, c.entry_size, c.order), c.result);
        ASSERT_EQ(calls.mutexes - mutexes, c.result == 0 ? 2 : 0);
        ASSERT_EQ(calls.blocks - blocks, c.result == 0 ? 2 : 0);
        ASSERT_EQ(cutils_ring_buffer_read_lock(&ring), nullptr);
        for (std::uint32_t i = 0; i < c.entries; ++i) {
            cutils_ring_buffer_slot* const slot = cutils_ring_buffer_write_lock(&ring);
            ASSERT_EQ(slot, &ring.slots[i]);
            ASSERT_EQ(slot->data, static_cast<char*>(ring.data) + i * c.entry_size);
            std::memset(slot->data, 0, c.entry_size);
        }
        ASSERT_EQ(cutils_ring_buffer_write_lock(&ring), nullptr);
        ASSERT_EQ(ring.writable, 0) << "a failed lock takes nothing";
        if (c.result == 0) {
            cutils_ring_buffer_term(&ring);
        }
        ASSERT_TRUE(calls.mutexes == mutexes && calls.blocks == blocks);
    }
}

// With 2^31 entries the full count is the lowest signed number; the lock must not take it for less than none.
TEST(RingBuffer, CountsTwoToThe31FreeSlots) {
    cutils_ring_buffer ring{};
    cutils_ring_buffer_slot slot{};
    ring.entry_count = 1U << 31;
    ring.writable = INT32_MIN;
    ring.slots = &slot;
    EXPECT_EQ(cutils_ring_buffer_write_lock(&ring), &slot);
    EXPECT_EQ(ring.writable, INT32_MAX);
}

// One side of the model. Tickets are handed out from `head` on and passed on up to `commit`.
struct side {
    std::uint32_t head;
    std::uint32_t commit;
    std::set<std::uint32_t> held;
    std::set<std::uint32_t> finished;
};

// Random locks and unlocks in any order, on counters that pass 2^32 on the way.
TEST(RingBuffer, PassesSlotsOnInTheOrderOfTheirLocks) {
    for (std::uint32_t order : {0U, 1U, 3U}) {
        std::mt19937 random(order);
        cutils_ring_buffer ring;
        ASSERT_EQ(cutils_ring_buffer_init(&ring, 4, order), 0U);
        const std::uint32_t start = 0U - 64;
        ring.write_head = ring.read_head = start;
        side writers = {start, start, {}, {}};
        side readers = writers;
        const auto slot_of = [&](std::uint32_t ticket) { return &ring.slots[ticket % ring.entry_count]; };
        for (int round = 0; round < 3000; ++round) {
            const bool write = random() % 2 == 0;
            side& own = write ? writers : readers;
            // Writers get what readers have passed on, one round ahead; readers what writers have.
            const std::uint32_t limit = write ? readers.commit + ring.entry_count : writers.commit;
            if (random() % 2 == 0) {
                auto* const slot =
                    (write ? cutils_ring_buffer_write_lock : cutils_ring_buffer_read_lock)(&ring);
                ASSERT_EQ(slot, own.head == limit ? nullptr : slot_of(own.head));
                if (slot != nullptr) {
                    own.held.insert(own.head++);
                }
            } else if (!own.held.empty()) {
                const auto ticket = std::next(own.held.begin(), static_cast<int>(random() % own.held.size()));
                (write ? cutils_ring_buffer_write_unlock : cutils_ring_buffer_read_unlock)(&ring,
                                                                                           slot_of(*ticket));
                own.finished.insert(own.held.extract(ticket));
                while (own.finished.erase(own.commit) != 0) {
                    ++own.commit;
                }
            }
            ASSERT_EQ(static_cast<std::uint32_t>(ring.readable), writers.commit - readers.head);
            ASSERT_EQ(static_cast<std::uint32_t>(ring.writable),
                      readers.commit + ring.entry_count - writers.head);
            ASSERT_EQ(ring.write_commit, writers.commit % ring.entry_count);
            ASSERT_EQ(ring.read_commit, readers.commit % ring.entry_count);
            for (std::uint32_t i = 0; i < ring.entry_count; ++i) {
                const std::uint32_t ticket = readers.commit + i;
                const unsigned state = writers.held.contains(ticket)         ? 4
                                       : writers.finished.contains(ticket)   ? 5
                                       : readers.held.contains(ticket)       ? 1
                                       : readers.finished.contains(ticket)   ? 2
                                       : i < writers.commit - readers.commit ? 0
                                                                             : 3;
                ASSERT_EQ(slot_of(ticket)->state, state);
            }
        }
        ASSERT_LT(writers.head, start) << "the counters have passed 2^32";
        cutils_ring_buffer_write_unlock(&ring, nullptr);
        cutils_ring_buffer_term(&ring);
    }
}

// A slot's data belongs to its holder: `writes` and `reads` count its rounds, so that a slot given twice,
// passed over or seen too early shows in them, and the thread sanitizer sees every unordered access.
struct message {
    std::uint32_t writes;
    std::uint32_t reads;
    std::uint32_t number;
};

TEST(RingBuffer, CarriesEveryMessageOnceAndInOrder) {
    constexpr std::uint32_t threads = 3;      // on each side
    constexpr std::uint32_t messages = 3000;  // of each writer
    for (std::uint32_t order : {0U, 2U, 5U}) {
        cutils_ring_buffer ring;
        ASSERT_EQ(cutils_ring_buffer_init(&ring, sizeof(message), order), 0U);
        std::memset(ring.data, 0, sizeof(message) * ring.entry_count);
        std::atomic<std::uint32_t> faults = 0;
        std::atomic<std::uint32_t> received = 0;
        std::vector<std::atomic<std::uint32_t>> deliveries(threads * messages);

        // Locks up to three slots, works on each, and unlocks the newest first.
        const auto batch = [&](auto lock, auto unlock, std::uint32_t limit, auto work) {
            std::vector<cutils_ring_buffer_slot*> slots;
            for (auto* slot = lock(&ring); slot != nullptr;
                 slot = slots.size() < limit ? lock(&ring) : nullptr) {
                slots.push_back(slot);
                work(*static_cast<message*>(slot->data), static_cast<std::uint32_t>(slot - ring.slots));
            }
            std::for_each(slots.rbegin(), slots.rend(), [&](auto* slot) { unlock(&ring, slot); });
            std::this_thread::yield();
        };
        const auto write = [&](std::uint32_t writer) {
            for (std::uint32_t sent = 0; sent < messages;) {
                batch(cutils_ring_buffer_write_lock, cutils_ring_buffer_write_unlock,
                      std::min(3U, messages - sent), [&](message& m, std::uint32_t) {
                          faults += m.reads != m.writes ? 1 : 0;
                          m = {m.writes + 1, m.reads, writer * messages + sent++};
                      });
            }
        };
        const auto read = [&] {
            std::uint32_t next_ticket = 0;
            std::uint32_t next_number[threads] = {0, messages, 2 * messages};
            while (received < threads * messages) {
                batch(cutils_ring_buffer_read_lock, cutils_ring_buffer_read_unlock, 3,
                      [&](message& m, std::uint32_t index) {
                          const std::uint32_t ticket = m.reads++ * ring.entry_count + index;
                          std::uint32_t& next = next_number[m.number / messages];
                          faults += m.reads != m.writes || ticket < next_ticket || m.number < next ? 1 : 0;
                          next_ticket = ticket + 1;
                          next = m.number + 1;
                          ++deliveries[m.number];
                          ++received;
                      });
            }
        };
        std::vector<std::thread> running;
        for (std::uint32_t i = 0; i < threads; ++i) {
            running.emplace_back(write, i);
            running.emplace_back(read);
        }
        for (std::thread& thread : running) {
            thread.join();
        }
        EXPECT_EQ(faults, 0U) << "order " << order;
        EXPECT_TRUE(
            std::all_of(deliveries.begin(), deliveries.end(), [](const auto& count) { return count == 1; }));
        EXPECT_TRUE(ring.readable == 0 && ring.writable == static_cast<std::int32_t>(ring.entry_count));
        cutils_ring_buffer_term(&ring);
    }
}

}  // namespace
