// The C library's calls as they are behind the stand-ins of interposer.cpp.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qel::vexa::virtual_gpu {

// As open(2), close(2) and mmap(2).
int real_open(const char* path, int flags);
int real_close(int descriptor);
void* real_map(void* address, std::size_t length, int protection, int flags, int descriptor,
               std::int64_t offset);

}  // namespace qel::vexa::virtual_gpu
