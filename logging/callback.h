// The log's one piece of state, for logging.cpp and for tests that need to hold its lock.
#pragma once

#include <shared_mutex>

#include "logging/logging.h"

namespace qel::vexa::logging::detail {

struct callback_state {
    // Taken shared, and only by trying, for a message; exclusively to replace the callback.
    std::shared_mutex lock;
    callback receiver;
};

extern callback_state current_callback;

}  // namespace qel::vexa::logging::detail
