// A reader of hardware counters: samples from the kernel driver, one after another, read where the kernel put
// them.
//
// One thread at a time may use a reader; only base_hwcnt_reader_interrupt may come from another one
// meanwhile. Nothing here prints.
#pragma once

#include <cstdint>

#include "base/vexa_base_context.h"

inline constexpr std::uint32_t BASE_HWCNT_SAMPLE_BLOCKS = 64;

// One sample. Zeroed by the caller, filled by get_buffer, and good until put_buffer.
struct base_hwcnt_sample {
    std::uint8_t data_is_u64;                      // 1 where the blocks' values have 64 bits, otherwise 0
    const void* blocks[BASE_HWCNT_SAMPLE_BLOCKS];  // the start of each block; the rest is null
    std::uint32_t num_blocks;                      // as there are, also where `blocks` can't hold them all
    std::uint32_t values_per_block;
    std::uint32_t sample_size;    // bytes
    std::uint64_t timestamp;      // nanoseconds, on the kernel's clock
    std::uint32_t event_id;       // what triggered the sample
    std::uint64_t cycles_top;     // 0 where the kernel does not count them
    std::uint64_t cycles_shader;  // 0 where the kernel does not count them
};

enum base_hwcnt_get_result : std::uint32_t {
    BASE_HWCNT_SAMPLE_READY = 0,
    BASE_HWCNT_TIMEOUT = 1,
    BASE_HWCNT_INTERRUPTED = 2,
    BASE_HWCNT_FAILURE = 3,
};

// What sample_periodic is told in place of a boolean.
enum base_hwcnt_sampling : std::uint32_t {
    BASE_HWCNT_SAMPLING_START = 0,
    BASE_HWCNT_SAMPLING_STOP = 1,
};

// The operations of a backend, on its state. Some have no user here; they belong to the interface all the
// same.
struct base_hwcnt_reader_operations {
    // BASE_OUT_OF_MEMORY is for the state alone.
    base_result (*init)(void** state_out, const base_context* ctx, std::uint32_t buffer_count,
                        std::uint32_t jm_bm, std::uint32_t shader_bm, std::uint32_t tiler_bm,
                        std::uint32_t mmu_l2_bm, std::uint32_t period);
    void (*term)(void* state);
    std::uint32_t (*get_hwver)(const void* state);
    std::uint32_t (*get_features)(const void* state);
    std::uint32_t (*get_sample_size)(const void* state);  // bytes
    base_result (*sample_manual)(void* state);
    base_result (*sample_periodic)(void* state, std::uint32_t stop);
    base_result (*clear)(void* state);
    base_hwcnt_get_result (*get_buffer)(void* state, base_hwcnt_sample* sample, std::int32_t timeout);
    base_result (*put_buffer)(void* state);
    void (*interrupt)(void* state);
    std::uint32_t (*data_is_u64)(const void* state);
};

struct base_hwcnt_reader {
    void* state;
    base_hwcnt_reader_operations backend;
};

extern "C" {

// Makes a reader with so many sample buffers and, for each kind of block, a word of enable bits; all ones
// enable all counters. The context is up. `period` is in nanoseconds; 0 is for samples on demand.
//
// BASE_SUCCESS with the reader in `reader_out`, which is otherwise not written. BASE_FAILURE when there is no
// memory for the reader's record, but BASE_OUT_OF_MEMORY when there is none for its backend's state; any
// other failure is a BASE_FAILURE. Whatever was made is undone.
base_result base_hwcnt_reader_init(base_hwcnt_reader** reader_out, const base_context* ctx,
                                   std::uint32_t buffer_count, std::uint32_t jm_bm, std::uint32_t shader_bm,
                                   std::uint32_t tiler_bm, std::uint32_t mmu_l2_bm, std::uint32_t period);

// No other operation may be under way.
void base_hwcnt_reader_term(base_hwcnt_reader* reader);

// The version word of the counter hardware.
std::uint32_t base_hwcnt_reader_get_hwver(const base_hwcnt_reader* reader);

// Starts or stops sampling at the reader's period: a base_hwcnt_sampling. BASE_FAILURE for any other number,
// on a reader without a period, and when the driver refuses.
base_result base_hwcnt_reader_sample_periodic(base_hwcnt_reader* reader, std::uint32_t stop);

// Sets the hardware's counts to 0. BASE_FAILURE when the driver refuses.
base_result base_hwcnt_reader_clear(base_hwcnt_reader* reader);

// Waits up to `timeout` milliseconds, or without limit for -1, and claims the oldest sample. Only a
// BASE_HWCNT_SAMPLE_READY fills in `sample`, and the next call wants a successful put_buffer before. An
// interrupt goes before a sample, which stays where it is.
base_hwcnt_get_result base_hwcnt_reader_get_buffer(base_hwcnt_reader* reader, base_hwcnt_sample* sample,
                                                   std::int32_t timeout);

// Gives the claimed sample back. After a BASE_FAILURE it is still claimed, and the call may be repeated.
base_result base_hwcnt_reader_put_buffer(base_hwcnt_reader* reader);

// Lets the get_buffer that waits, or else the next one, return BASE_HWCNT_INTERRUPTED, once for any number of
// calls. Never blocks. Any thread may call it.
void base_hwcnt_reader_interrupt(base_hwcnt_reader* reader);

}  // extern "C"
