// The machine that the GPUs are in: the process's set of device nodes "/dev/vexa0", "/dev/vexa1" and so on,
// and what tests arrange and observe of them.
//
// All operations may be called by any thread at any time, also before the program's static initialisers have
// run and while they are undone. After a fork the child has the same nodes and open descriptors, in a copy of
// its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "virtual_gpu/device_model.h"

namespace qel::vexa::virtual_gpu {

inline constexpr std::string_view node_prefix = "/dev/vexa";

// One open of a node, or one ioctl on it.
struct request_record {
    request_kind kind;
    unsigned instance;     // which node
    std::uint32_t number;  // of the ioctl; 0 for an open
    std::vector<std::byte>
        argument;  // the record as the caller sent it; empty for an open and for unknown numbers
    int result;    // a negative error number, or what the driver returned; 0 for an open
};

namespace machine {

// Nodes come and go like a driver's. A descriptor that is open stays with the GPU that it was opened on.
void add_node(unsigned instance, gpu_description gpu);
void remove_node(unsigned instance);

// Back to a machine without nodes, arranged failures and logged requests. Open descriptors stay as they are.
void reset();

// Makes the n-th request of a kind from now on, 1 being the next, fail with this error number, in place of
// what was arranged for the kind before. All nodes count together, and opens of nodes that do not exist count
// too.
void fail(request_kind kind, int error, unsigned nth = 1);

// Makes every request of a kind fail. With ENOTTY the kernel does not know the request's number.
void fail_always(request_kind kind, int error);

// The requests since the last reset, oldest first.
std::vector<request_record> requests();

// What the interposer passes on, with the flags of open(2) and the arguments of ioctl(2). The result is a
// descriptor or what the driver returns, or a negative error number; nothing when the descriptor is not a
// node's.
int open_node(unsigned instance, int flags);
std::optional<int> answer(int descriptor, std::uint32_t number, void* argument);

// Comes before every close.
void forget(int descriptor);

}  // namespace machine

// The node that a machine starts with. Only the preloaded form defines it, from the environment; a program
// with the virtual GPU linked in adds nodes by itself. Must not call the machine.
[[gnu::weak]] std::optional<gpu_description> initial_node();

}  // namespace qel::vexa::virtual_gpu
