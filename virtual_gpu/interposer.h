// The C library's calls as they are behind the stand-ins of interposer.cpp.
#pragma once

namespace qel::vexa::virtual_gpu {

// As open(2) and close(2).
int real_open(const char* path, int flags);
int real_close(int descriptor);

}  // namespace qel::vexa::virtual_gpu
