// The machine that the GPUs are in: the process's set of device nodes "/dev/vexa0", "/dev/vexa1" and so on,
// and what tests arrange and observe of them and of the counter readers that they hand out.
//
// All operations may be called by any thread at any time, also before the program's static initialisers have
// run and while they are undone. After a fork the child has the same nodes and open descriptors, in a copy of
// its own; its readers take no more periodic samples by themselves.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "virtual_gpu/device_model.h"

namespace qel::vexa::virtual_gpu {

inline constexpr std::string_view node_prefix = "/dev/vexa";

// One request: the open or stat of a node's path, or a call on an open descriptor.
struct request_record {
    request_kind kind;
    unsigned instance;     // which node, also for a request of one of its readers
    std::uint32_t number;  // of the ioctl; 0 for every other call
    // The record as the caller sent it. Empty when the request has none.
    std::vector<std::byte> argument;
    // What is passed as a plain number: the third argument of dump, clear and set interval; the length of a
    // mapping; the time-out of poll, -1 being all bits. Otherwise 0.
    std::uint64_t value;
    // A negative error number, or what the driver returned: the length of the properties, the new reader's
    // descriptor. 0 for everything else that went well, and for a poll that was let through.
    int result;
};

// What is open in this process now.
struct open_counts {
    std::size_t nodes;           // descriptors of device nodes
    std::size_t readers;         // descriptors of counter readers
    std::size_t tracking_pages;  // mappings
    std::size_t rings;           // mappings

    bool operator==(const open_counts&) const = default;
};

// What a machine can start with.
struct initial_node {
    gpu_description gpu;
    std::chrono::milliseconds delay{0};  // of its appearance
};
struct initial_failure {
    request_kind kind;
    int error;
    unsigned nth;  // 1 is the first; 0: every one
};
struct machine_setup {
    std::vector<initial_node> nodes;
    std::vector<initial_failure> failures;
};

namespace machine {

// Nodes come and go like a driver's. A descriptor that is open stays with the GPU that it was opened on.
// Whatever was at the instance before is replaced.
void add_node(unsigned instance, gpu_description gpu);
// A node that does not exist yet, and is there when the delay is over.
void add_node_later(unsigned instance, gpu_description gpu, std::chrono::milliseconds delay);
// The node's name leads to another file: regular, a folder, or one that does not exist.
void add_file(unsigned instance, std::string path);
void remove_node(unsigned instance);

// Back to a machine without nodes, arranged failures, logged requests and overruns, whose readers signal.
// Open descriptors stay as they are.
void reset();

// Makes the n-th request of a kind from now on, 1 being the next, fail with this error number, in place of
// what was arranged for the kind before. All nodes count together, and nodes that do not exist count too. A
// failed request has no effect.
void fail(request_kind kind, int error, unsigned nth = 1);

// Makes every request of a kind fail. With ENOTTY the kernel does not know the request's number.
void fail_always(request_kind kind, int error);

// The requests since the last reset or clear_requests, oldest first. A preloaded machine keeps none.
std::vector<request_record> requests();
void clear_requests();

open_counts open_now();

// Samples that found all buffers taken, since the last reset. Their counts went into the next sample.
std::uint64_t overruns();

// Off: no descriptor of a reader becomes readable, or stays so, while samples are taken as ever. Holds for
// readers that are set up later, too.
void set_signalling(bool on);
// Makes every reader readable once more than it has samples: after those, a request for one gets EAGAIN.
void signal_without_sample();
// Every reader that is open now has POLLHUP and nothing else on its descriptor, once its samples are claimed.
// It takes no more samples.
void hang_up_readers();

}  // namespace machine

// What a machine starts with. Only the preloaded form defines it, from the environment; a program with the
// virtual GPU linked in adds nodes by itself. Must not call the machine.
[[gnu::weak]] machine_setup initial_machine();

}  // namespace qel::vexa::virtual_gpu
