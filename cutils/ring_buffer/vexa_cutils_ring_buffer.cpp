// A ring of slots of one size, for any number of writers and readers at once.
#include "cutils/ring_buffer/vexa_cutils_ring_buffer.h"

#include <cstddef>
#include <cstdlib>
#include <initializer_list>
#include <new>

namespace {

constexpr std::uint32_t ORDER_MASK = 0xff;
constexpr std::uint32_t ORDER_LIMIT = 32;

// Memory for `count` objects of `size` bytes. Sizes are multiplied in sixty-four bits: on a 32-bit machine
// 2^31 slots would wrap round to a small block, and every slot but the first ones would lie outside it.
void* allocate(std::uint64_t count, std::uint64_t size) {
    const std::uint64_t bytes = count * size;
    return bytes <= PTRDIFF_MAX ? std::malloc(static_cast<std::size_t>(bytes)) : nullptr;
}

// Takes the next slot of one side, if `available` has one. A thread that got one out of `available` always
// finds its slot free for it, since `head` can't run ahead of what the other side has passed on.
cutils_ring_buffer_slot* lock_slot(cutils_ring_buffer* ring, std::atomic<std::int32_t>& available,
                                   std::atomic<std::uint32_t>& head, cutils_ring_buffer_state held) {
    const std::int32_t before = available.fetch_sub(1, std::memory_order_seq_cst);
    // Unsigned, because one less than the lowest value must be the highest.
    if (static_cast<std::int32_t>(static_cast<std::uint32_t>(before) - 1) < 0) {
        available.fetch_add(1, std::memory_order_seq_cst);
        return nullptr;
    }
    const std::uint32_t index = head.fetch_add(1, std::memory_order_seq_cst) & (ring->entry_count - 1);
    cutils_ring_buffer_slot* const slot = &ring->slots[index];
    // Relaxed, because nothing is published here: a walk stops at this slot whether it sees the old state or
    // the new.
    slot->state.store(held, std::memory_order_relaxed);
    return slot;
}

// Marks a slot as finished, and passes it and the finished ones behind it on to the other side, as far as no
// older slot is still held. A finished slot is never left lying: its holder stores the state first and then
// takes the mutex, so either an earlier walk has passed it on, or the walk of the older slot's holder comes
// later and sees it, or this one.
void unlock_slot(cutils_ring_buffer* ring, cutils_ring_buffer_slot* slot, cutils_ring_buffer_state finished,
                 cutils_ring_buffer_state passed_on, pthread_mutex_t& commit_lock,
                 std::atomic<std::uint32_t>& commit, std::atomic<std::int32_t>& available_to_other_side) {
    if (slot == nullptr) {
        return;
    }
    // Release: whoever walks over this slot has the data behind it, before it lets the other side have it.
    slot->state.store(finished, std::memory_order_release);
    pthread_mutex_lock(&commit_lock);
    std::uint32_t index = commit.load(std::memory_order_seq_cst);
    while (ring->slots[index].state.load(std::memory_order_acquire) == finished) {
        // Before the count rises: from then on the other side may hold the slot and store a state of its own,
        // which this store must not undo. It may be relaxed since the count's ordering carries it along.
        ring->slots[index].state.store(passed_on, std::memory_order_relaxed);
        index = index + 1 == ring->entry_count ? 0 : index + 1;
        commit.store(index, std::memory_order_seq_cst);
        available_to_other_side.fetch_add(1, std::memory_order_seq_cst);
    }
    pthread_mutex_unlock(&commit_lock);
}

}  // namespace

cutils_result cutils_ring_buffer_init(cutils_ring_buffer* ring, std::uint32_t entry_size,
                                      std::uint32_t order) {
    ::new (static_cast<void*>(ring)) cutils_ring_buffer{};
    order &= ORDER_MASK;
    ring->entry_size = entry_size;
    ring->entry_count = order < ORDER_LIMIT ? std::uint32_t{1} << order : 0;

    if (pthread_mutex_init(&ring->read_commit_lock, nullptr) != 0) {
        return CUTILS_FAILURE;
    }
    if (pthread_mutex_init(&ring->write_commit_lock, nullptr) != 0) {
        pthread_mutex_destroy(&ring->read_commit_lock);
        return CUTILS_FAILURE;
    }
    ring->data = allocate(ring->entry_count, entry_size);
    ring->slots = static_cast<cutils_ring_buffer_slot*>(
        ring->data != nullptr ? allocate(ring->entry_count, sizeof(cutils_ring_buffer_slot)) : nullptr);
    if (ring->slots == nullptr) {
        cutils_ring_buffer_term(ring);
        return CUTILS_OUT_OF_MEMORY;
    }
    for (std::uint32_t i = 0; i < ring->entry_count; ++i) {
        void* const data = static_cast<char*>(ring->data) + std::size_t{i} * entry_size;
        ::new (static_cast<void*>(&ring->slots[i])) cutils_ring_buffer_slot{data, CUTILS_RING_BUFFER_FREE};
    }
    // Last, so that every lock of a ring that could not be made fails.
    ring->writable.store(static_cast<std::int32_t>(ring->entry_count));
    return CUTILS_SUCCESS;
}

void cutils_ring_buffer_term(cutils_ring_buffer* ring) {
    pthread_mutex_destroy(&ring->write_commit_lock);
    pthread_mutex_destroy(&ring->read_commit_lock);
    std::free(ring->slots);
    std::free(ring->data);
}

cutils_ring_buffer_slot* cutils_ring_buffer_write_lock(cutils_ring_buffer* ring) {
    return lock_slot(ring, ring->writable, ring->write_head, CUTILS_RING_BUFFER_WRITING);
}

cutils_ring_buffer_slot* cutils_ring_buffer_read_lock(cutils_ring_buffer* ring) {
    return lock_slot(ring, ring->readable, ring->read_head, CUTILS_RING_BUFFER_READING);
}

void cutils_ring_buffer_write_unlock(cutils_ring_buffer* ring, cutils_ring_buffer_slot* slot) {
    unlock_slot(ring, slot, CUTILS_RING_BUFFER_WRITTEN, CUTILS_RING_BUFFER_READABLE, ring->write_commit_lock,
                ring->write_commit, ring->readable);
}

void cutils_ring_buffer_read_unlock(cutils_ring_buffer* ring, cutils_ring_buffer_slot* slot) {
    unlock_slot(ring, slot, CUTILS_RING_BUFFER_READ, CUTILS_RING_BUFFER_FREE, ring->read_commit_lock,
                ring->read_commit, ring->writable);
}

bool cutils_ring_buffer_is_at_rest(cutils_ring_buffer* ring) {
    for (pthread_mutex_t* const lock : {&ring->write_commit_lock, &ring->read_commit_lock}) {
        if (pthread_mutex_trylock(lock) != 0) {
            return false;
        }
        pthread_mutex_unlock(lock);
    }
    // A slot on its way from one side to the other is counted on neither.
    return static_cast<std::uint32_t>(ring->writable.load()) +
               static_cast<std::uint32_t>(ring->readable.load()) ==
           ring->entry_count;
}
