// The ring against Boost's lock-free queue. Every thread puts a message in and takes one out, over and over;
// both copy it in and out.
#include <algorithm>
#include <array>
#include <atomic>
#include <boost/lockfree/queue.hpp>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "benchmarks/side_by_side.h"
#include "cutils/ring_buffer/vexa_cutils_ring_buffer.h"

namespace {

constexpr std::uint32_t ORDER = 4;
constexpr unsigned MESSAGES = 50000;  // of each thread in one pass

template <std::size_t Size>
using message = std::array<char, Size>;

template <typename Message>
class ring {
public:
    ring() { cutils_ring_buffer_init(&ring_, sizeof(Message), ORDER); }
    ring(const ring&) = delete;
    ring& operator=(const ring&) = delete;
    ~ring() { cutils_ring_buffer_term(&ring_); }

    bool push(const Message& message) {
        cutils_ring_buffer_slot* const slot = cutils_ring_buffer_write_lock(&ring_);
        if (slot == nullptr) {
            return false;
        }
        std::memcpy(slot->data, &message, sizeof message);
        cutils_ring_buffer_write_unlock(&ring_, slot);
        return true;
    }

    bool pop(Message& message) {
        cutils_ring_buffer_slot* const slot = cutils_ring_buffer_read_lock(&ring_);
        if (slot == nullptr) {
            return false;
        }
        std::memcpy(&message, slot->data, sizeof message);
        cutils_ring_buffer_read_unlock(&ring_, slot);
        return true;
    }

private:
    cutils_ring_buffer ring_;
};

// What locking and unlocking in the ring do at least: its atomic operations and its mutexes, on a record of
// the same shape, without slots, messages and waiting.
class ring_operations {
public:
    ring_operations() { cutils_ring_buffer_init(&ring_, 1, ORDER); }
    ring_operations(const ring_operations&) = delete;
    ring_operations& operator=(const ring_operations&) = delete;
    ~ring_operations() { cutils_ring_buffer_term(&ring_); }

    template <typename Message>
    bool push(const Message& /*message*/) {
        pass_on(ring_.writable, ring_.write_head, ring_.write_commit_lock, ring_.write_commit,
                ring_.readable);
        return true;
    }
    template <typename Message>
    bool pop(Message& /*message*/) {
        pass_on(ring_.readable, ring_.read_head, ring_.read_commit_lock, ring_.read_commit, ring_.writable);
        return true;
    }

private:
    static void pass_on(std::atomic<std::int32_t>& available, std::atomic<std::uint32_t>& head,
                        pthread_mutex_t& commit_lock, std::atomic<std::uint32_t>& commit,
                        std::atomic<std::int32_t>& available_to_other_side) {
        available.fetch_sub(1);
        const std::uint32_t index = head.fetch_add(1);
        pthread_mutex_lock(&commit_lock);
        commit.store(index);
        available_to_other_side.fetch_add(1);
        pthread_mutex_unlock(&commit_lock);
    }

    cutils_ring_buffer ring_;
};

template <typename Message>
using queue = boost::lockfree::queue<Message, boost::lockfree::capacity<(1U << ORDER)>>;

// The time from the first message of the first thread to the last of the last one.
template <typename Message, typename Container>
double pass(Container& container, std::int64_t thread_count) {
    using clock = std::chrono::steady_clock;
    std::vector<clock::time_point> starts(static_cast<std::size_t>(thread_count));
    std::atomic<std::int64_t> waiting = thread_count;
    const auto work = [&](clock::time_point& start) {
        Message message{};
        --waiting;
        while (waiting != 0) {
        }
        start = clock::now();
        for (unsigned i = 0; i < MESSAGES; ++i) {
            message[0] = static_cast<char>(i);
            while (!container.push(message)) {
                std::this_thread::yield();
            }
            while (!container.pop(message)) {
                std::this_thread::yield();
            }
            benchmark::DoNotOptimize(message);
        }
    };
    std::vector<std::thread> threads;
    for (std::size_t i = 1; i < starts.size(); ++i) {
        threads.emplace_back(work, std::ref(starts[i]));
    }
    work(starts[0]);
    for (std::thread& thread : threads) {
        thread.join();
    }
    const auto first = *std::min_element(starts.begin(), starts.end());
    return std::chrono::duration<double>(clock::now() - first).count();
}

template <std::size_t Size, typename Ring = ring<message<Size>>>
void transfer(benchmark::State& state) {
    Ring our_ring;
    const auto their_queue = std::make_unique<queue<message<Size>>>();
    const double messages = MESSAGES * static_cast<double>(state.range(0));
    qel::vexa::benchmarks::side_by_side(
        state, messages, [&] { return pass<message<Size>>(our_ring, state.range(0)); },
        [&] { return pass<message<Size>>(*their_queue, state.range(0)); });
}

void thread_counts(benchmark::internal::Benchmark* benchmark) {
    benchmark->ArgName("threads")->Arg(1)->Arg(2)->Arg(4)->UseManualTime()->Iterations(51);
}

// A short message, and one of a diagnostic channel's size.
BENCHMARK_TEMPLATE(transfer, 64)->Apply(thread_counts);
BENCHMARK_TEMPLATE(transfer, 512)->Apply(thread_counts);
BENCHMARK_TEMPLATE(transfer, 64, ring_operations)->Apply(thread_counts);

}  // namespace

int main(int argument_count, char** arguments) {
    qel::vexa::benchmarks::have_had_threads();
    benchmark::Initialize(&argument_count, arguments);
    benchmark::RunSpecifiedBenchmarks();
}
