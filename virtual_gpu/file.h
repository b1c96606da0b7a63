// An open file of the virtual GPU's own. The process does not know of it.
#pragma once

#include <utility>

#include "virtual_gpu/interposer.h"

namespace qel::vexa::virtual_gpu {

// Owns a descriptor and closes it. -1: none.
class file {
public:
    explicit file(int descriptor = -1) : descriptor_(descriptor) {}
    file(file&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
    file& operator=(file&& other) noexcept {
        std::swap(descriptor_, other.descriptor_);
        return *this;
    }
    ~file() { close(); }

    void close() {
        if (is_open()) {
            real_close(std::exchange(descriptor_, -1));
        }
    }

    bool is_open() const { return descriptor_ >= 0; }
    int descriptor() const { return descriptor_; }
    // The caller owns it from now on.
    int release() { return std::exchange(descriptor_, -1); }

private:
    int descriptor_;
};

}  // namespace qel::vexa::virtual_gpu
