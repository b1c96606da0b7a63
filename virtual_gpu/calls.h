// What the interposer passes on to the machine. All may be called by any thread at any time.
//
// Where a result is optional, there is none when the call concerns neither a node nor a reader. Every result
// that is a number is what the call returns, or a negative error number.
#pragma once

#include <poll.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>

namespace qel::vexa::virtual_gpu::machine {

// Makes the machine what it starts with, unless it has begun before. Every other call does so too.
void begin();

int open_node(unsigned instance, int flags);

// `call` does the C library's call on a path, and gives its result, with -1 for errno.
int stat_node(unsigned instance, const std::function<int(const char* path)>& call);

std::optional<int> answer(int descriptor, std::uint32_t number, void* argument);

struct map_arguments {
    void* address;
    std::size_t length;
    int protection;
    int flags;
    int descriptor;
    std::int64_t offset;
};
struct map_result {
    void* address;
    int error;  // 0: mapped
};
std::optional<map_result> map(const map_arguments& arguments);

// These calls themselves go on to the C library, but for an arranged failure.
std::optional<int> fail_fstat(int descriptor);
std::optional<int> fail_poll(const pollfd* descriptors, std::size_t count, int timeout);

// Comes before every close.
void forget(int descriptor);

}  // namespace qel::vexa::virtual_gpu::machine
