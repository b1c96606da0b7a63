// The allocator of the tracing side's byte vectors.
#pragma once

#include <memory>

namespace qel::vexa::stx {

// The standard one, under a name of its own so that a platform that needs another has one place to change.
template <typename T>
using allocator = std::allocator<T>;

}  // namespace qel::vexa::stx
