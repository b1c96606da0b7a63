// The list, counted text, the dictionary and the ring: each against a plain model, and the ring under many
// threads.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "cutils/dlist/vexa_cutils_dlist.h"
#include "cutils/ring_buffer/vexa_cutils_ring_buffer.h"
#include "cutils/strdict/vexa_cutils_strdict.h"
#include "cutils/string/vexa_cutils_string.h"
#include "fuzz/strdict_session.h"
#include "tests/support/failing_calls.h"

extern "C" decltype(pthread_mutex_lock) __real_pthread_mutex_lock;
// Lets other threads see a finished slot before its holder's own commit walk.
extern "C" int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
    std::this_thread::yield();
    return __real_pthread_mutex_lock(mutex);
}

namespace {

using test_support::calls;

// Random operations, with both directions of the list compared with a vector after each.
TEST(Dlist, KeepsItsOrderInBothDirections) {
    std::mt19937 random(7);
    std::array<cutilsp_dlist_item, 6> items{};
    cutilsp_dlist list{};
    std::vector<cutilsp_dlist_item*> model(2);  // between the nulls that the outer links are
    for (int round = 0; round < 1000; ++round) {
        cutilsp_dlist_item* const item = &items[random() % items.size()];
        const auto at = std::find(model.begin(), model.end(), item);
        const auto kind = random() % 3;
        if (at == model.end()) {
            *item = {item, item};  // what an item holds before it is put in does not matter
            (kind == 0 ? cutilsp_dlist_push_back : cutilsp_dlist_push_front)(&list, item);
            model.insert(kind == 0 ? model.end() - 1 : model.begin() + 1, item);
        } else {
            if (kind == 0) {
                cutilsp_dlist_remove_item(&list, item);
            } else if (kind == 1) {
                ASSERT_EQ(cutilsp_dlist_remove_and_return_next(&list, item), at[1]);
            } else {
                ASSERT_EQ(cutilsp_dlist_remove_and_return_prev(&list, item), at[-1]);
            }
            model.erase(at);
            ASSERT_TRUE(item->next == nullptr && item->previous == nullptr);
        }
        ASSERT_TRUE(list.first == model[1] && list.last == model.end()[-2]);
        for (std::size_t i = 1; i + 1 < model.size(); ++i) {
            ASSERT_TRUE(model[i]->next == model[i + 1] && model[i]->previous == model[i - 1]);
        }
    }
}

TEST(String, MeasuresTextsOfOneTo1024Bytes) {
    for (const std::size_t length : {0U, 1U, 1024U, 1025U}) {
        // The longest text has no terminator: no byte behind the bound may be read.
        std::vector<char> text(std::min<std::size_t>(length + 1, 1025));
        std::fill_n(text.begin(), length, 'x');
        const bool good = length == 1 || length == 1024;
        cutils_string string = {"old", 3};
        EXPECT_EQ(cutils_string_from_cstring_nocopy(text.data(), &string), good ? 0U : 3U) << length;
        EXPECT_TRUE(string.text == (good ? text.data() : nullptr) && string.length == (good ? length : 0));
    }
}

TEST(String, OrdersByBytesAndThenByLength) {
    const std::string sorted[] = {"", {"\0", 1}, "a", "ab", "b", "b\x7f", "b\x80"};
    for (const std::string& a : sorted) {
        for (const std::string& b : sorted) {
            const auto order =
                cutils_string_cmp(a.empty() ? nullptr : a.data(), static_cast<unsigned>(a.size()), b.data(),
                                  static_cast<unsigned>(b.size()));
            EXPECT_TRUE(&a < &b ? order < 0 : &a > &b ? order > 0 : order == 0) << a << " against " << b;
            EXPECT_TRUE(std::abs(order) < 2 || !(a.starts_with(b) || b.starts_with(a))) << order;
        }
    }
}

int some_value;

// Operations with equal odds for each kind; kind 7 makes an allocation fail.
std::vector<std::uint8_t> random_operations(unsigned seed, std::size_t count, unsigned kinds) {
    std::mt19937 random(seed);
    std::vector<std::uint8_t> bytes;
    while (bytes.size() < 2 * count) {
        bytes.push_back(static_cast<std::uint8_t>(random() % kinds));
        bytes.push_back(static_cast<std::uint8_t>(random()));
    }
    return bytes;
}

TEST(Strdict, AgreesWithAPlainList) {
    for (unsigned seed = 0; seed < 30; ++seed) {
        const auto operations = random_operations(seed, seed % 3 == 0 ? 24 : 500, 8);
        const char* const broken = strdict_session(0, seed % 4 != 0).run(operations);
        ASSERT_EQ(broken, nullptr) << broken << ", seed " << seed;
    }
}

TEST(Strdict, SurvivesTheFailureOfEachAllocation) {
    const auto operations = random_operations(1, 200, 7);
    unsigned allocations = 1;
    for (unsigned fail_at = 1; fail_at <= allocations; ++fail_at) {
        strdict_session session(fail_at, true);
        const char* const broken = session.run(operations);
        ASSERT_EQ(broken, nullptr) << broken << ", allocation " << fail_at;
        allocations = session.allocations();
    }
    EXPECT_GT(allocations, 60U);
}

// Tables too large to exist here: the decision reads the counts alone.
TEST(Strdict, RefusesATableThatCannotBe) {
    const std::tuple<std::uint64_t, std::uint64_t, bool> cases[] = {
        {1ULL << 27, 5ULL << 24, true},          // the size wraps round on 32 bits
        {1ULL << 30, 5ULL << 27, true},          // and the products of the load too
        {1ULL << 31, (1ULL << 31) - 1, false}};  // twice as many can't be counted: the last free slot stays
    for (const auto& [slots, used, may_allocate] : cases) {
        std::uint64_t asked = 0;
        const auto allocate = [](void* context, std::size_t size) -> void* {
            *static_cast<std::uint64_t*>(context) = size;
            return nullptr;
        };
        cutils_strdict dictionary;
        cutils_strdict_init(&dictionary, &asked, allocate, nullptr);
        dictionary.mask = static_cast<std::uint32_t>(slots - 1);
        dictionary.used = static_cast<std::uint32_t>(used);
        EXPECT_EQ(cutils_strdict_insert(&dictionary, "key", &some_value, true), 2U) << slots;
        EXPECT_TRUE(asked == 0 || (may_allocate && asked == slots * 2 * sizeof(cutils_strdict_slot)))
            << asked;
        EXPECT_TRUE(dictionary.mask == slots - 1 && dictionary.used == used);
    }
}

TEST(Strdict, TakesAnyTextAndLetsGoOfWhatIterationHasPassed) {
    cutils_strdict dictionary;
    cutils_strdict_init(&dictionary, nullptr, nullptr, nullptr);  // so small a dictionary takes no memory
    // The linker may give the second literal the address of any equal literal in the program. The last two
    // have the same hash.
    const char* const names[] = {"b", "<dummy>", "a", "qaululmc", "wszihzns"};
    for (const char* name : names) {
        EXPECT_EQ(cutils_strdict_insert(&dictionary, name, &some_value, false), 0U);
    }
    EXPECT_EQ(cutils_strdict_insert(&dictionary, nullptr, &some_value, false), 3U);
    EXPECT_EQ(cutils_strdict_lookup_key(&dictionary, "a", nullptr), 0U);
    cutils_strdict_iter iterator;
    cutils_strdict_iter_init(&iterator, &dictionary);
    for (const char* name : names) {
        cutils_string key;
        cutils_strdict_iter_next(&key, &iterator, nullptr);
        ASSERT_EQ(std::string_view(key.text, key.length), name);
        const std::uint32_t hash = dictionary.table[dictionary.first].hash;
        EXPECT_EQ(cutilsp_strdict_lookup(&dictionary, &key, hash), dictionary.first);
        EXPECT_EQ(cutils_strdict_remove(&dictionary, name, nullptr), 0U);
    }
    EXPECT_TRUE(dictionary.count == 0 && dictionary.used == 5 && dictionary.first == CUTILS_STRDICT_NONE &&
                dictionary.last == CUTILS_STRDICT_NONE);
}

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
    // The full count of 2^31 entries is the lowest signed number, and must not be taken for less than none.
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
    std::uint32_t head, commit;
    std::set<std::uint32_t> held, finished;
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
        }
        ASSERT_LT(writers.head, start) << "the counters have passed 2^32";
        cutils_ring_buffer_write_unlock(&ring, nullptr);
        cutils_ring_buffer_term(&ring);
    }
}

// A slot's data belongs to its holder: `writes` and `reads` count its rounds, so that a slot given twice,
// passed over or seen too early shows in them, and the thread sanitizer sees every unordered access.
struct message {
    std::uint32_t writes, reads, number;
};

TEST(RingBuffer, CarriesEveryMessageOnceAndInOrder) {
    constexpr std::uint32_t threads = 3;      // on each side
    constexpr std::uint32_t messages = 3000;  // of each writer
    for (std::uint32_t order : {0U, 2U, 5U}) {
        cutils_ring_buffer ring;
        ASSERT_EQ(cutils_ring_buffer_init(&ring, sizeof(message), order), 0U);
        std::memset(ring.data, 0, sizeof(message) * ring.entry_count);
        std::atomic<std::uint32_t> faults = 0, received = 0;

        // Locks up to three slots, works on each, and unlocks the newest first.
        const auto batch = [&](auto lock, auto unlock, std::uint32_t limit, auto work) {
            std::vector<cutils_ring_buffer_slot*> slots;
            for (auto* slot = lock(&ring); slot != nullptr;
                 slot = slots.size() < limit ? lock(&ring) : nullptr) {
                slots.push_back(slot);
                work(*static_cast<message*>(slot->data));
            }
            std::for_each(slots.rbegin(), slots.rend(), [&](auto* slot) { unlock(&ring, slot); });
            std::this_thread::yield();
        };
        const auto write = [&](std::uint32_t writer) {
            for (std::uint32_t sent = 0; sent < messages;) {
                batch(cutils_ring_buffer_write_lock, cutils_ring_buffer_write_unlock,
                      std::min(3U, messages - sent), [&](message& m) {
                          faults += m.reads != m.writes ? 1 : 0;
                          m = {m.writes + 1, m.reads, writer * messages + sent++};
                      });
            }
        };
        const auto read = [&] {
            std::uint32_t next[threads] = {0, messages, 2 * messages};
            while (received < threads * messages) {
                batch(cutils_ring_buffer_read_lock, cutils_ring_buffer_read_unlock, 3, [&](message& m) {
                    std::uint32_t& expected = next[m.number / messages];
                    faults += ++m.reads != m.writes || m.number < expected ? 1 : 0;
                    expected = m.number + 1;
                    ++received;
                });
            }
        };
        std::vector<std::thread> running;
        for (std::uint32_t i = 0; i < threads; ++i) {
            running.emplace_back(write, i);
            running.emplace_back(read);
        }
        std::for_each(running.begin(), running.end(), [](std::thread& thread) { thread.join(); });
        // No message twice, since each of a slot's rounds is read once; so all that was sent was received.
        EXPECT_EQ(faults, 0U) << "order " << order;
        EXPECT_TRUE(ring.readable == 0 && ring.writable == static_cast<std::int32_t>(ring.entry_count));
        cutils_ring_buffer_term(&ring);
    }
}

}  // namespace
