// The text that describes the virtual GPUs to the preloaded form, as the environment variable VIRTUAL_GPU
// holds it.
//
// Empty or absent: the default GPU. "none": a machine without a GPU. Otherwise a list of GPUs with semicolons
// between them, the first being that of "/dev/vexa0". Each is a list of items with commas between them, in
// any order, each at most once; what is left out has its default. Numbers are decimal, or hexadecimal behind
// "0x".
//
//   id=0x9002            the product id word
//   revision=0.0         major and minor revision
//   status=0             the hardware version's status
//   cores=0x3ff          the mask of shader cores, up to 64 bits
//   groups=0x3ff         the masks of up to 16 core groups, with colons between them; they make up the cores
//   l2=4                 L2 slices, up to 255
//   bus=16               width of the external bus in bytes, a power of two
//   clock=800            GPU clock in MHz, up to 10000
//   version=11.33        the kernel interface's version
//   features=3           the counter readers' feature bits, 0 to 3
//   legacy=0             1: the driver knows the legacy API version request alone
//   loses=1              0: samples wait for a free buffer, however late
//   hwver=5              the counter hardware's version
//   late=0               when the node appears, in milliseconds from the program's start, up to 60000
//   source=workload      where sample words come from: "workload" or "formula"
//   period=10000000      time between samples in nanoseconds, 1 to 4294967295; of the seam's reader only
//   failures=            requests that fail, with colons between them: "get_buffer@5=EIO", the fifth one of
//                        all GPUs, or "stat=ENOENT", every one. The kinds are those of request_kind; in place
//                        of an error's name its number will do.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "virtual_gpu/machine.h"

namespace qel::vexa::virtual_gpu {

// How a process ends when its environment describes no GPU that there could be.
inline constexpr int bad_environment_status = 2;

struct configuration {
    machine_setup machine;                 // its nodes are the GPUs in order
    std::uint64_t period_ns = 10'000'000;  // of the seam's reader, over the first GPU
};

// Reads a description. On a mistake nothing, and the error is one line without its end that names the bad
// item.
std::optional<configuration> parse_configuration(std::string_view text, std::string& error);

// Reads the description in the environment. A mistake prints the error on stderr and ends the process with
// status 2.
configuration read_environment();

}  // namespace qel::vexa::virtual_gpu
