#include "virtual_gpu/machine.h"

#include <fcntl.h>
#include <pthread.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

#include "virtual_gpu/interposer.h"

namespace qel::vexa::virtual_gpu::machine {

namespace {

struct failure {
    int error = 0;     // 0: none
    unsigned nth = 0;  // 1 is the next request; 0: every one
};

struct open_file {
    unsigned instance;
    device_context context;
};

struct machine_state {
    std::map<unsigned, std::shared_ptr<const gpu_description>> nodes;
    std::map<int, open_file> descriptors;
    std::array<failure, request_kind_count> failures;
    std::vector<request_record> log;
};

// The stand-ins run at any point of a process's life, so all of this is constant-initialised, and the state
// is made on first use and never destroyed.
constinit std::mutex lock;
constinit machine_state* the_state = nullptr;  // under the lock
// Lets the calls on other descriptors pass without the lock while no node is open.
constinit std::atomic<std::size_t> open_descriptors{0};

machine_state& state() {
    if (the_state == nullptr) {
        the_state = new machine_state;
        if (&initial_node != nullptr) {
            if (std::optional<gpu_description> gpu = initial_node()) {
                the_state->nodes[0] = std::make_shared<const gpu_description>(*std::move(gpu));
            }
        }
    }
    return *the_state;
}

// A fork must not catch the lock in another thread's hands.
[[gnu::constructor]] void guard_forks() {
    ::pthread_atfork([] { lock.lock(); }, [] { lock.unlock(); }, [] { lock.unlock(); });
}

// A node's descriptor is a real one, on a device that accepts everything. It is told apart from any other
// that gets the same number, after a close that bypassed the stand-in, by a property of the open file that
// nothing else uses: which signal asynchronous input would raise. There is none, as that mode stays off.
constexpr char carrier_device[] = "/dev/null";
constexpr int mark = SIGURG;

// The error that was arranged for this request, or 0.
int take_failure(request_kind kind) {
    failure& arranged = state().failures[static_cast<std::size_t>(kind)];
    if (arranged.error == 0 || arranged.nth == 0) {
        return arranged.error;
    }
    return --arranged.nth == 0 ? std::exchange(arranged.error, 0) : 0;
}

void arrange(request_kind kind, failure what) {
    const std::lock_guard guard(lock);
    state().failures[static_cast<std::size_t>(kind)] = what;
}

// A descriptor, or a negative error number. The node's entry is made here.
int open_carrier(unsigned instance, int flags) {
    if (const int error = take_failure(request_kind::open)) {
        return -error;
    }
    const auto node = state().nodes.find(instance);
    if (node == state().nodes.end()) {
        return -ENOENT;
    }
    const int descriptor = real_open(carrier_device, flags);
    if (descriptor < 0) {
        return -errno;
    }
    if (::fcntl(descriptor, F_SETSIG, mark) != 0) {
        const int error = errno;
        real_close(descriptor);
        return -error;
    }
    state().descriptors.insert_or_assign(descriptor, open_file{instance, device_context(node->second)});
    open_descriptors = state().descriptors.size();
    return descriptor;
}

}  // namespace

void add_node(unsigned instance, gpu_description gpu) {
    const std::lock_guard guard(lock);
    state().nodes[instance] = std::make_shared<const gpu_description>(std::move(gpu));
}

void remove_node(unsigned instance) {
    const std::lock_guard guard(lock);
    state().nodes.erase(instance);
}

void reset() {
    const std::lock_guard guard(lock);
    state().nodes.clear();
    state().failures = {};
    state().log.clear();
}

void fail(request_kind kind, int error, unsigned nth) {
    arrange(kind, {.error = error, .nth = nth});
}

void fail_always(request_kind kind, int error) {
    arrange(kind, {.error = error, .nth = 0});
}

std::vector<request_record> requests() {
    const std::lock_guard guard(lock);
    return state().log;
}

int open_node(unsigned instance, int flags) {
    const std::lock_guard guard(lock);
    const int result = open_carrier(instance, flags);
    state().log.push_back({.kind = request_kind::open,
                           .instance = instance,
                           .number = 0,
                           .argument = {},
                           .result = result < 0 ? result : 0});
    return result;
}

std::optional<int> answer(int descriptor, std::uint32_t number, void* argument) {
    if (open_descriptors == 0) {
        return std::nullopt;
    }
    const std::lock_guard guard(lock);
    const auto entry = state().descriptors.find(descriptor);
    if (entry == state().descriptors.end() || ::fcntl(descriptor, F_GETSIG) != mark) {
        return std::nullopt;
    }
    const request_kind kind = kind_of(number);
    request_record record{
        .kind = kind, .instance = entry->second.instance, .number = number, .argument = {}, .result = 0};
    if (kind != request_kind::unknown && argument != nullptr) {
        const auto* bytes = static_cast<const std::byte*>(argument);
        record.argument.assign(bytes, bytes + record_size(number));
    }
    const int error = take_failure(kind);
    record.result = error != 0 ? -error : entry->second.context.answer(number, argument);
    state().log.push_back(record);
    return record.result;
}

void forget(int descriptor) {
    if (open_descriptors == 0) {
        return;
    }
    const std::lock_guard guard(lock);
    state().descriptors.erase(descriptor);
    open_descriptors = state().descriptors.size();
}

}  // namespace qel::vexa::virtual_gpu::machine
