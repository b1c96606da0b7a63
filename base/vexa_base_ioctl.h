// The kernel driver's requests on a device node, with results in place of errno. Nothing here prints: the
// callers choose the words. The node is open, and belongs to the calling thread.
#pragma once

#include <cstdint>

#include "base/kernel_requests.h"
#include "base/vexa_base_gpu_props.h"

struct uku_context;

enum base_result : std::uint32_t {
    BASE_SUCCESS = 0,
    BASE_OUT_OF_MEMORY = 2,
    BASE_FAILURE = 3,  // whatever else the reason is
    BASE_BUSY = 68,
};

extern "C" {

// Exchanges interface versions: `record` holds the wanted one and receives the driver's. Any of the four
// results.
base_result basep_ioctl_version_check(const uku_context* ctx, base_version_record* record);

// Fixes the creation flags of the kernel's side of the context. Any of the four results.
base_result basep_ioctl_set_flags(const uku_context* ctx, base_flags_record* record);

// Fills `props` from what the driver tells. BASE_FAILURE if it refuses, or without memory for the driver's
// answer.
base_result basep_ioctl_get_properties(const uku_context* ctx, base_gpu_props* props);

// Makes a reader of hardware counters, whose descriptor `out_fd` receives and the caller closes; 0 is one as
// well. BASE_FAILURE if the driver refuses.
base_result basep_ioctl_hwcnt_reader_setup(const uku_context* ctx, base_hwcnt_reader_setup_record* record,
                                           std::int32_t* out_fd);

}  // extern "C"
