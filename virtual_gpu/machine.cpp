#include "virtual_gpu/machine.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <span>
#include <utility>

#include "virtual_gpu/calls.h"
#include "virtual_gpu/clock.h"
#include "virtual_gpu/counter_reader.h"
#include "virtual_gpu/file.h"
#include "virtual_gpu/interposer.h"
#include "virtual_gpu/sampling_thread.h"

namespace qel::vexa::virtual_gpu::machine {

namespace {

struct failure {
    int error = 0;     // 0: none
    unsigned nth = 0;  // 1 is the next request; 0: every one
};

struct node {
    std::shared_ptr<const gpu_description> gpu;
    std::string path;  // where the name leads to, in place of a GPU
    std::uint64_t appears = 0;
};

// What a descriptor stands for: one of the two.
struct open_file {
    unsigned instance;
    std::unique_ptr<device_context> context;
    std::unique_ptr<counter_reader> reader;
};

std::optional<std::uint64_t> take_due_samples();

// The stand-ins run at any point of a process's life, so all of this is constant-initialised, and the state
// is made on first use and never destroyed.
constinit std::mutex lock;

struct machine_state {
    std::map<unsigned, node> nodes;
    std::map<int, open_file> descriptors;
    std::array<failure, request_kind_count> failures;
    std::vector<request_record> log;
    std::uint64_t overruns = 0;
    bool signals = true;
    sampling_thread sampler{lock, take_due_samples};
};

constinit machine_state* the_state = nullptr;  // under the lock
// Lets the calls on other descriptors pass without the lock while none of the machine's is open.
constinit std::atomic<std::size_t> open_descriptors{0};

failure& arranged_for(request_kind kind) {
    return the_state->failures[static_cast<std::size_t>(kind)];
}

bool is_preloaded() {
    return &initial_machine != nullptr;
}

void set_node(unsigned instance, gpu_description gpu, std::chrono::nanoseconds delay) {
    the_state->nodes[instance] = {.gpu = std::make_shared<const gpu_description>(std::move(gpu)),
                                  .path = {},
                                  .appears = raw_clock() + static_cast<std::uint64_t>(delay.count())};
}

machine_state& state() {
    if (the_state == nullptr) {
        the_state = new machine_state;
        if (is_preloaded()) {
            machine_setup setup = initial_machine();
            unsigned instance = 0;
            for (initial_node& one : setup.nodes) {
                set_node(instance++, std::move(one.gpu), one.delay);
            }
            for (const initial_failure& one : setup.failures) {
                arranged_for(one.kind) = {.error = one.error, .nth = one.nth};
            }
        }
    }
    return *the_state;
}

// A fork must not catch the lock in another thread's hands. The child has no sampling thread.
[[gnu::constructor]] void guard_forks() {
    ::pthread_atfork([] { lock.lock(); }, [] { lock.unlock(); },
                     [] {
                         if (the_state != nullptr) {
                             the_state->sampler.forget();
                             for (auto& [descriptor, what] : the_state->descriptors) {
                                 if (what.reader) {
                                     what.reader->stop();
                                 }
                             }
                         }
                         lock.unlock();
                     });
}

// Holds the lock for an operation that can leave the sampling thread without work. The thread then is at its
// end before the operation is.
class sampling_guard {
public:
    sampling_guard() { lock.lock(); }
    ~sampling_guard() {
        const bool has_work = std::any_of(
            state().descriptors.begin(), state().descriptors.end(),
            [](const auto& entry) { return entry.second.reader && entry.second.reader->next_due(); });
        const std::optional<pthread_t> ended = has_work ? std::nullopt : state().sampler.end();
        lock.unlock();
        if (ended) {
            ::pthread_join(*ended, nullptr);
        }
    }
    sampling_guard(const sampling_guard&) = delete;
    sampling_guard& operator=(const sampling_guard&) = delete;
};

// A node's descriptor is a real one, on a device that accepts everything; a reader's is the reading end of a
// pipe. Both are told apart from any other that gets the same number, after a close that bypassed the
// stand-in, by a property of the open file that nothing else uses: which signal asynchronous input would
// raise. There is none, as that mode stays off.
constexpr char carrier_device[] = "/dev/null";
constexpr int mark = SIGURG;

// The names that mappings have in the process's list of them.
constexpr char tracking_page_name[] = "vexa_tracking_page";
constexpr char ring_name[] = "vexa_ring";

constexpr std::size_t tracking_page_size = 4096;
constexpr std::int64_t tracking_page_offset = 0x3000;

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
    state();
    arranged_for(kind) = what;
}

// Nobody can read the log of a preloaded machine.
int log(request_record record) {
    const int result = record.result;
    if (!is_preloaded()) {
        state().log.push_back(std::move(record));
    }
    return result;
}

// A call that has neither a number nor a record.
int log_call(request_kind kind, unsigned instance, int result, std::uint64_t value = 0) {
    return log(
        {.kind = kind, .instance = instance, .number = 0, .argument = {}, .value = value, .result = result});
}

// Whether there is a chance that the descriptor is a node's or a reader's. Calls for other files are let
// through without a lock. The thread sanitizer's reports open, map and close some, and wait for ever if they
// meet a second thing to report.
bool is_marked(int descriptor) {
    return open_descriptors != 0 && ::fcntl(descriptor, F_GETSIG) == mark;
}

// The open node or reader behind a descriptor that is marked, or null.
open_file* find_marked(int descriptor) {
    const auto entry = state().descriptors.find(descriptor);
    return entry != state().descriptors.end() ? &entry->second : nullptr;
}

// The open node or reader behind any descriptor, or null.
open_file* find(int descriptor) {
    open_file* const entry = find_marked(descriptor);
    return entry != nullptr && is_marked(descriptor) ? entry : nullptr;
}

template <typename Action>
void for_each_reader(Action action) {
    for (auto& [descriptor, what] : state().descriptors) {
        if (what.reader && find(descriptor) != nullptr) {
            action(*what.reader, descriptor);
        }
    }
}

// Marks the descriptor and enters it. The descriptor, or a negative error number.
int enter(file& opened, open_file what) {
    if (::fcntl(opened.descriptor(), F_SETSIG, mark) != 0) {
        return -errno;
    }
    const int descriptor = opened.release();
    state().descriptors.insert_or_assign(descriptor, std::move(what));
    open_descriptors = state().descriptors.size();
    return descriptor;
}

std::optional<std::uint64_t> take_due_samples() {
    std::optional<std::uint64_t> next;
    for (auto& [descriptor, what] : state().descriptors) {
        if (what.reader) {
            what.reader->take_due_samples(raw_clock());
            const std::optional<std::uint64_t> due = what.reader->next_due();
            if (due && (!next || *due < *next)) {
                next = due;
            }
        }
    }
    return next;
}

// The node if it is there by now, or null.
const node* find_node(unsigned instance) {
    const auto entry = state().nodes.find(instance);
    return entry != state().nodes.end() && entry->second.appears <= raw_clock() ? &entry->second : nullptr;
}

// A descriptor, or a negative error number.
int open_path(unsigned instance, int flags) {
    if (const int error = take_failure(request_kind::open)) {
        return -error;
    }
    const node* there = find_node(instance);
    if (there == nullptr) {
        return -ENOENT;
    }
    file opened(real_open(there->gpu ? carrier_device : there->path.c_str(), flags));
    if (!opened.is_open()) {
        return -errno;
    }
    if (!there->gpu) {
        return opened.release();
    }
    return enter(
        opened,
        {.instance = instance, .context = std::make_unique<device_context>(there->gpu), .reader = nullptr});
}

// A descriptor, or -1 for errno. Not every C library has the call.
int memory_file(const char* name) {
    return static_cast<int>(::syscall(SYS_memfd_create, name, MFD_CLOEXEC));
}

// The new reader's descriptor, or a negative error number.
int open_reader(const open_file& opener, const void* argument) {
    reader_setup_record setup;
    std::memcpy(&setup, argument, sizeof setup);
    const std::shared_ptr<const gpu_description>& gpu = opener.context->gpu();
    file ring(memory_file(ring_name));
    if (!ring.is_open() ||
        ::ftruncate(ring.descriptor(), static_cast<off_t>(counter_reader::ring_size(*gpu, setup))) != 0) {
        return -errno;
    }
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
        return -errno;
    }
    file opened(ends[0]);
    auto reader = std::make_unique<counter_reader>(gpu, setup, std::move(ring), file(ends[1]));
    reader->set_signalling(state().signals, opened.descriptor());
    return enter(opened, {.instance = opener.instance, .context = nullptr, .reader = std::move(reader)});
}

int answer_by_node(const open_file& node, request_kind kind, std::uint32_t number, void* argument) {
    const int result = node.context->answer(number, argument);
    return kind == request_kind::reader_setup && result == 0 ? open_reader(node, argument) : result;
}

int answer_by_reader(open_file& target, std::uint32_t number, void* argument, int descriptor) {
    counter_reader& reader = *target.reader;
    const std::optional<std::uint64_t> before = reader.next_due();
    int result = reader.answer(number, argument, descriptor);
    const std::optional<std::uint64_t> after = reader.next_due();
    state().overruns += reader.take_overruns();
    if (after && (!before || *after < *before)) {
        if (const int error = state().sampler.wake()) {
            reader.stop();
            result = error;
        }
    }
    return result;
}

// 0 if a mapping of the node is as the driver wants it.
int check_tracking_page(const device_context& context, const map_arguments& arguments) {
    if (!context.is_ready()) {
        return EPERM;
    }
    const bool is_right = arguments.length == tracking_page_size && arguments.protection == PROT_NONE &&
                          arguments.flags == MAP_SHARED && arguments.offset == tracking_page_offset;
    return is_right ? 0 : EINVAL;
}

int check_ring(const counter_reader& reader, const map_arguments& arguments) {
    const bool is_right = arguments.length == reader.ring_size() && arguments.protection == PROT_READ &&
                          arguments.flags == MAP_PRIVATE && arguments.offset == 0;
    return is_right ? 0 : EINVAL;
}

// Of the file from its beginning.
map_result map_file(const map_arguments& arguments, int descriptor) {
    void* address =
        real_map(arguments.address, arguments.length, arguments.protection, arguments.flags, descriptor, 0);
    return {.address = address, .error = address == MAP_FAILED ? errno : 0};
}

map_result map_tracking_page(const map_arguments& arguments) {
    const file page(memory_file(tracking_page_name));
    if (!page.is_open() || ::ftruncate(page.descriptor(), tracking_page_size) != 0) {
        return {.address = MAP_FAILED, .error = errno};
    }
    return map_file(arguments, page.descriptor());
}

}  // namespace

void add_node(unsigned instance, gpu_description gpu) {
    add_node_later(instance, std::move(gpu), {});
}

void add_node_later(unsigned instance, gpu_description gpu, std::chrono::milliseconds delay) {
    const std::lock_guard guard(lock);
    state();
    set_node(instance, std::move(gpu), delay);
}

void add_file(unsigned instance, std::string path) {
    const std::lock_guard guard(lock);
    state().nodes[instance] = {.gpu = nullptr, .path = std::move(path), .appears = 0};
}

void remove_node(unsigned instance) {
    const std::lock_guard guard(lock);
    state().nodes.erase(instance);
}

void reset() {
    set_signalling(true);
    const std::lock_guard guard(lock);
    state().nodes.clear();
    state().failures = {};
    state().log.clear();
    state().overruns = 0;
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

void clear_requests() {
    const std::lock_guard guard(lock);
    state().log.clear();
}

open_counts open_now() {
    open_counts counts{};
    // Before the lock is taken: the stream opens and closes a file.
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        counts.tracking_pages += line.find(tracking_page_name) != std::string::npos ? 1U : 0U;
        counts.rings += line.find(ring_name) != std::string::npos ? 1U : 0U;
    }
    const std::lock_guard guard(lock);
    for (const auto& [descriptor, what] : state().descriptors) {
        if (find(descriptor) != nullptr) {
            ++(what.reader ? counts.readers : counts.nodes);
        }
    }
    return counts;
}

std::uint64_t overruns() {
    const std::lock_guard guard(lock);
    for_each_reader([](counter_reader& reader, int) { state().overruns += reader.take_overruns(); });
    return state().overruns;
}

void set_signalling(bool on) {
    const std::lock_guard guard(lock);
    state().signals = on;
    for_each_reader([on](counter_reader& reader, int descriptor) { reader.set_signalling(on, descriptor); });
}

void signal_without_sample() {
    const std::lock_guard guard(lock);
    for_each_reader([](counter_reader& reader, int) { reader.signal_once(); });
}

void hang_up_readers() {
    const sampling_guard guard;
    for_each_reader([](counter_reader& reader, int) { reader.hang_up(); });
}

void begin() {
    const std::lock_guard guard(lock);
    state();
}

int open_node(unsigned instance, int flags) {
    const std::lock_guard guard(lock);
    const int result = open_path(instance, flags);
    log_call(request_kind::open, instance, std::min(result, 0));
    return result;
}

int stat_node(unsigned instance, const std::function<int(const char* path)>& call) {
    const std::lock_guard guard(lock);
    int error = take_failure(request_kind::stat);
    if (error == 0) {
        const node* there = find_node(instance);
        if (there == nullptr) {
            error = ENOENT;
        } else {
            error = call(there->gpu ? carrier_device : there->path.c_str()) < 0 ? errno : 0;
        }
    }
    return log_call(request_kind::stat, instance, -error);
}

std::optional<int> answer(int descriptor, std::uint32_t number, void* argument) {
    if (!is_marked(descriptor)) {
        return std::nullopt;
    }
    const sampling_guard guard;
    open_file* const target = find_marked(descriptor);
    if (target == nullptr) {
        return std::nullopt;
    }
    const request_kind kind = target->reader ? reader_kind_of(number) : kind_of(number);
    request_record record{.kind = kind,
                          .instance = target->instance,
                          .number = number,
                          .argument = {},
                          .value = 0,
                          .result = 0};
    if (takes_value(kind)) {
        record.value = reinterpret_cast<std::uintptr_t>(argument);
    } else if (!is_preloaded() && kind != request_kind::unknown && argument != nullptr) {
        const auto* bytes = static_cast<const std::byte*>(argument);
        record.argument.assign(bytes, bytes + record_size(number));
    }
    if (const int error = take_failure(kind)) {
        record.result = -error;
    } else if (target->reader) {
        record.result = answer_by_reader(*target, number, argument, descriptor);
    } else {
        record.result = answer_by_node(*target, kind, number, argument);
    }
    return log(std::move(record));
}

std::optional<map_result> map(const map_arguments& arguments) {
    if (!is_marked(arguments.descriptor)) {
        return std::nullopt;
    }
    const std::lock_guard guard(lock);
    const open_file* target = find_marked(arguments.descriptor);
    if (target == nullptr) {
        return std::nullopt;
    }
    const request_kind kind = target->reader ? request_kind::map_ring : request_kind::map_tracking_page;
    map_result result{.address = MAP_FAILED, .error = take_failure(kind)};
    if (result.error == 0) {
        result.error = target->reader ? check_ring(*target->reader, arguments)
                                      : check_tracking_page(*target->context, arguments);
    }
    if (result.error == 0) {
        result = target->reader ? map_file(arguments, target->reader->ring()) : map_tracking_page(arguments);
    }
    log_call(kind, target->instance, -result.error, arguments.length);
    return result;
}

std::optional<int> fail_fstat(int descriptor) {
    if (!is_marked(descriptor)) {
        return std::nullopt;
    }
    const std::lock_guard guard(lock);
    const open_file* target = find_marked(descriptor);
    if (target == nullptr || target->reader) {
        return std::nullopt;
    }
    const int result = log_call(request_kind::fstat, target->instance, -take_failure(request_kind::fstat));
    return result == 0 ? std::nullopt : std::optional(result);
}

std::optional<int> fail_poll(const pollfd* descriptors, std::size_t count, int timeout) {
    if (open_descriptors == 0) {
        return std::nullopt;
    }
    const std::lock_guard guard(lock);
    for (const pollfd& one : std::span(descriptors, count)) {
        const open_file* target = find(one.fd);
        if (target != nullptr && target->reader) {
            const int result =
                log_call(request_kind::poll, target->instance, -take_failure(request_kind::poll),
                         static_cast<std::uint64_t>(timeout));
            return result == 0 ? std::nullopt : std::optional(result);
        }
    }
    return std::nullopt;
}

void forget(int descriptor) {
    if (!is_marked(descriptor)) {
        return;
    }
    const sampling_guard guard;
    const auto entry = state().descriptors.find(descriptor);
    if (entry != state().descriptors.end()) {
        if (entry->second.reader) {
            state().overruns += entry->second.reader->take_overruns();
        }
        state().descriptors.erase(entry);
        open_descriptors = state().descriptors.size();
    }
}

}  // namespace qel::vexa::virtual_gpu::machine
