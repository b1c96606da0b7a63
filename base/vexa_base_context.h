// The connection to one GPU: its open device node, the kernel's side of the context, and what the driver
// tells of the GPU.
#pragma once

#include <cstdint>
#include <type_traits>

#include "base/vexa_base_gpu_props.h"
#include "base/vexa_base_ioctl.h"
#include "uku/vexa_uku.h"

// Zeroed by its owner before base_context_init. Used by one thread at a time, but for the properties, which
// any thread may read once the context is up.
struct base_context {
    base_gpu_props props;  // first, so that the address of a context is that of its properties
    uku_context uk;
    std::uint16_t reserved_state;
    std::uint32_t create_flags;  // as the caller gave them
    void* tracking_page;         // never touched: the kernel's side lives as long as it is mapped
    std::uint32_t interface_major;
    std::uint32_t interface_minor;
};
static_assert(std::is_standard_layout_v<base_context>);

// In place of an instance number: search for a device that will do.
inline constexpr std::uint32_t BASE_ANY_INSTANCE = 0xffff'ffff;

extern "C" {

// Connects to a device: to the one that the setting VEXA_INSTANCE names, otherwise to the first one whose
// driver and GPU are accepted. 1 on success. On failure 0, with the reasons printed for the user unless the
// device of an instance other than 0 can't be opened. Nothing is held then, but for a search that succeeds
// only in its second round: see search_instances. `flags` are the creation flags of the kernel's side,
// BASE_CREATE_FLAGS. A device that is not there is waited for, up to five seconds.
std::uint32_t base_context_init(base_context* ctx, std::uint32_t flags);

// The same for one instance, or for BASE_ANY_INSTANCE.
std::uint32_t base_context_init_for_instance(base_context* ctx, std::uint32_t flags, std::uint32_t instance);

// Undoes a successful initialisation. Every reader of the context must be gone before.
void base_context_term(base_context* ctx);

// The properties of a context that is up. They live as long as it.
const base_gpu_props* base_get_gpu_props(const base_context* ctx);

// Makes a reader of hardware counters with so many sample buffers and, for each kind of block, a word of
// enable bits; all ones enable all counters. BASE_SUCCESS with the reader's descriptor in `out_fd`, which the
// caller closes, or BASE_FAILURE. The reader does not need the context's node from then on.
base_result base_context_hwcnt_reader_setup(const base_context* ctx, std::uint32_t buffer_count,
                                            std::uint32_t jm_bm, std::uint32_t shader_bm,
                                            std::uint32_t tiler_bm, std::uint32_t mmu_l2_bm,
                                            std::int32_t* out_fd);

}  // extern "C"
