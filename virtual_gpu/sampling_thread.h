// The one thread that takes the periodic samples of all readers. It exists only while there are some to take.
#pragma once

#include <pthread.h>

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>

namespace qel::vexa::virtual_gpu {

// All operations want the lock held.
class sampling_thread {
public:
    // Takes what has fallen due and tells when to look again, on the samples' clock; nothing when there is
    // nothing to wait for. Called with the lock held.
    using work = std::optional<std::uint64_t> (*)();

    sampling_thread(std::mutex& lock, work take_due) : lock_(lock), take_due_(take_due) {}

    // Makes the thread look for work anew; starts it when it isn't there. 0 or a negative error number.
    int wake();
    // Tells the thread to end, if it is there. The caller joins it when it no longer holds the lock.
    [[nodiscard]] std::optional<pthread_t> end();
    // For the child of a fork, where the thread does not exist. Allocates nothing.
    void forget();

private:
    void run();

    std::mutex& lock_;
    const work take_due_;
    std::condition_variable woken_;
    std::optional<pthread_t> thread_;
};

}  // namespace qel::vexa::virtual_gpu
