#include "virtual_gpu/sampling_thread.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <new>
#include <utility>

#include "virtual_gpu/clock.h"

namespace qel::vexa::virtual_gpu {

namespace {

// Keeps the lock free for others when samples fall due faster than they can be taken.
constexpr std::uint64_t least_pause_ns = 50'000;
// Keeps deadlines within what the clocks can hold.
constexpr std::uint64_t longest_pause_ns = 1'000'000'000;

}  // namespace

int sampling_thread::wake() {
    if (thread_) {
        woken_.notify_one();
        return 0;
    }
    // The program's signals are not for this thread.
    sigset_t all;
    sigset_t previous;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &previous);
    pthread_t thread{};
    const int error = ::pthread_create(
        &thread, nullptr,
        [](void* self) -> void* {
            static_cast<sampling_thread*>(self)->run();
            return nullptr;
        },
        this);
    ::pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    if (error == 0) {
        thread_ = thread;
    }
    return -error;
}

std::optional<pthread_t> sampling_thread::end() {
    woken_.notify_all();
    return std::exchange(thread_, std::nullopt);
}

void sampling_thread::forget() {
    thread_.reset();
    // Still has the thread among those that wait, so that its destructor would never return.
    ::new (static_cast<void*>(&woken_)) std::condition_variable;
}

void sampling_thread::run() {
    ::pthread_setname_np(::pthread_self(), "virtual-gpu");
    std::unique_lock held(lock_);
    // There can be a successor already, when this thread ends.
    while (thread_ && ::pthread_equal(*thread_, ::pthread_self()) != 0) {
        const std::optional<std::uint64_t> next = take_due_();
        if (!next) {
            woken_.wait(held);
            continue;
        }
        // There is no timer that runs on the samples' clock. So each wait is as long as that clock says anew,
        // and nothing adds up.
        const std::uint64_t now = raw_clock();
        const std::uint64_t left = *next > now ? *next - now : 0;
        woken_.wait_for(held, std::chrono::nanoseconds(std::clamp(left, least_pause_ns, longest_pause_ns)));
    }
}

}  // namespace qel::vexa::virtual_gpu
