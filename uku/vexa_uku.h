// Access to the GPU's device nodes: opening one, agreeing on a version with the kernel driver, and closing
// it, also in the child of a host process that forks.
#pragma once

#include <cstdint>

#include "base/kernel_requests.h"
#include "base/vexa_base_gpu_props.h"

// An open device node. Belongs to one thread at a time.
struct uku_context {
    std::int32_t fd;         // of the node, from uku_open on
    std::uint32_t instance;  // of the device, once everything that needs the node is up
};

enum uku_open_result : std::uint32_t {
    UKU_OPEN_SUCCESS = 0,        // the driver serves the version that was asked for
    UKU_OPEN_OTHER_VERSION = 1,  // open all the same: the caller decides
    UKU_OPEN_FAILURE = 2,        // not open
};

// The only client there is.
inline constexpr std::uint32_t UKU_CLIENT = 0;

extern "C" {

// Opens the node of a device instance, "/dev/vexa0" being that of instance 0. A node that does not exist is
// waited for, up to five seconds. `version` says which version of the driver's interface is wanted, and
// receives the driver's own; a driver with the same major and a higher minor serves it too. Unless the result
// is UKU_OPEN_FAILURE, `ctx` holds the descriptor, which a forked child loses at once. Any thread may call
// it.
uku_open_result uku_open(std::uint32_t client, std::uint32_t instance, base_version_record* version,
                         uku_context* ctx);

// Closes the node; closes nothing if that has been done before. Any thread may call it.
void uku_close(const uku_context* ctx);

// Reads and writes one field each.
std::int32_t uku_get_fd(const uku_context* ctx);
void uku_set_instance(uku_context* ctx, std::uint32_t instance);

// Whether this is a GPU that the driver stack is built for: 1 if so, otherwise 0. Deliberately narrower than
// the list of GPUs that detection knows. A `verbose` other than 0 tells the user why not, with `instance` in
// the message. Any thread may call it.
std::uint32_t uku_ddk_compatible(const base_gpu_props* props, std::uint32_t verbose, std::uint32_t instance);

}  // extern "C"
