// A ring of slots of one size, for any number of writers and readers at once.
//
// A writer locks a slot, fills its data in place, and unlocks it; a reader likewise. Slots are handed out in
// ring order and may be unlocked in any order, but they pass to the other side in the order in which they
// were handed out: a finished slot waits until all older ones are finished. Locking never waits and takes no
// mutex.
//
//             write_lock                write_unlock                         commit walk
//     FREE ──────────────► WRITING ──────────────────► WRITTEN ─────────────────────────────► READABLE
//       ▲                                                                                         │
//       └──────────── READ ◄────────────────────────── READING ◄──────────────────────────────────┘
//        commit walk               read_unlock                            read_lock
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "cutils/result.h"

enum cutils_ring_buffer_state : std::uint32_t {
    CUTILS_RING_BUFFER_READABLE = 0,  // written and committed
    CUTILS_RING_BUFFER_READING = 1,   // held by a reader
    CUTILS_RING_BUFFER_READ = 2,      // waits for the release of older slots
    CUTILS_RING_BUFFER_FREE = 3,
    CUTILS_RING_BUFFER_WRITING = 4,  // held by a writer
    CUTILS_RING_BUFFER_WRITTEN = 5,  // waits for the commit of older slots
};

struct cutils_ring_buffer_slot {
    // entry_size bytes of the ring's block, aligned only as far as entry_size is. They belong to the thread
    // that holds the slot.
    void* data;
    // Atomic, though only one thread at a time may change it: every commit walk looks at the slot behind the
    // last one that is finished, and that slot's holder may be storing its state at that moment. As a plain
    // word this would be a data race, and worse, a walk that saw WRITTEN would not thereby see the data that
    // was written before it and would publish what it never got to see.
    std::atomic<cutils_ring_buffer_state> state;
};
static_assert(sizeof(std::atomic<cutils_ring_buffer_state>) == 4);
static_assert(sizeof(void*) != 4 || sizeof(cutils_ring_buffer_slot) == 8);

// The four counters on the lock paths are changed by every thread. The record can't be copied, for its
// atomics can't.
struct cutils_ring_buffer {
    std::uint32_t entry_size;   // bytes per slot; constant while the ring lives, as are all plain fields
    std::uint32_t entry_count;  // a power of two, or 0

    // Locks handed out so far. They pass 2^32 and begin again at 0 with no harm: a power of two divides 2^32,
    // so the masked value goes on to the next slot all the same. The fetch-and-add is what gives every thread
    // a slot of its own. Its ordering matters too. A thread may be given the slot that was freed by a commit
    // which another locker has seen in `writable` or `readable`, and not itself; it then learns of that
    // commit from that locker, through this counter.
    std::atomic<std::uint32_t> read_head;
    std::atomic<std::uint32_t> write_head;

    // Each covers one side's commit walk. Without it two threads could publish one slot twice. They are never
    // held together, and nobody holds one while data is written or read.
    pthread_mutex_t write_commit_lock;
    pthread_mutex_t read_commit_lock;

    // The index of the oldest slot not yet published by a writer, or released by a reader. Changed under the
    // mutex of its side only; atomic so that they can be looked at from outside it.
    std::atomic<std::uint32_t> write_commit;
    std::atomic<std::uint32_t> read_commit;

    // Slots free for writing, and ready for reading. A lock takes one first and gives it back if there was
    // none, so the value is below zero for moments, by as many as there are threads that find nothing.
    // Deliberate consequence: a lock may fail because another one's failure is still on its way back,
    // although a slot has just come free. Counted modulo 2^32: with 2^31 entries the full count is the lowest
    // value, and one less the highest; nothing is mistaken as long as fewer than 2^31 threads wait to give
    // back.
    std::atomic<std::int32_t> writable;
    std::atomic<std::int32_t> readable;

    void* data;  // one block of entry_size times entry_count bytes, the ring's own
    cutils_ring_buffer_slot* slots;
};
static_assert(std::atomic<std::uint32_t>::is_always_lock_free);

extern "C" {

// Makes a ring of 2^order entries of `entry_size` bytes, all free. Only the low eight bits of `order` count,
// as they do for the processor's shift; 32 and above make a ring of no slots, in which every lock fails.
//
// Results: CUTILS_OUT_OF_MEMORY, also where the size can't be expressed and where malloc gives nothing for no
// bytes; CUTILS_FAILURE when a mutex can't be made. Nothing is left behind then, and every lock fails. One
// thread calls it, before any other uses the ring.
cutils_result cutils_ring_buffer_init(cutils_ring_buffer* ring, std::uint32_t entry_size,
                                      std::uint32_t order);

// Gives back what cutils_ring_buffer_init made. No slot is held, and no other thread uses the ring any more.
void cutils_ring_buffer_term(cutils_ring_buffer* ring);

// Hands the next slot to the calling thread, or null if there is none. Any thread may call it, and may hold
// several slots.
cutils_ring_buffer_slot* cutils_ring_buffer_write_lock(cutils_ring_buffer* ring);
cutils_ring_buffer_slot* cutils_ring_buffer_read_lock(cutils_ring_buffer* ring);

// Gives a slot back, once, on the side where it was locked. Its holder calls it, in any order among its
// slots. Null is ignored.
void cutils_ring_buffer_write_unlock(cutils_ring_buffer* ring, cutils_ring_buffer_slot* slot);
void cutils_ring_buffer_read_unlock(cutils_ring_buffer* ring, cutils_ring_buffer_slot* slot);

// Whether no slot is held and no thread is inside one of the operations. Of use where no thread can be: in
// the child of a fork, whose parent had other threads.
bool cutils_ring_buffer_is_at_rest(cutils_ring_buffer* ring);

}  // extern "C"
