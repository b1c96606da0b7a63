#include "uku/vexa_uku.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <ctime>

#include "base/vexa_base_ioctl.h"
#include "cdbg/print.h"
#include "cutils/cstr/vexa_cutils_cstr.h"
#include "cutils/dlist/vexa_cutils_dlist.h"

namespace {

constexpr char NODE_PREFIX[] = "/dev/vexa";
constexpr std::uint32_t NODE_NAME_SIZE = 16;  // longer names are cut

constexpr time_t NODE_WAIT_SECONDS = 5;
constexpr useconds_t NODE_POLL_MICROSECONDS = 10'000;

// The GPU that this driver stack is built for. The message shows it with the product in the upper half.
constexpr std::uint32_t BUILT_FOR_ID = 0x9002'0000;
constexpr std::int32_t BUILT_FOR_MAJOR_REVISION = 0;
constexpr std::int32_t BUILT_FOR_MINOR_REVISION = 0;
constexpr std::int32_t BUILT_FOR_STATUS_MIN = 0;
constexpr std::int32_t BUILT_FOR_STATUS_MAX = 15;
constexpr std::uint32_t PRODUCT_ID_MASK = 0xf00f;

// Every open descriptor of the process has a record in the list, the newest first.
struct ukup_fd_record {
    cutilsp_dlist_item links;
    std::int32_t fd;
};
static_assert(offsetof(ukup_fd_record, links) == 0);

pthread_mutex_t ukup_fd_mutex = PTHREAD_MUTEX_INITIALIZER;  // guards the two below
std::uint8_t ukup_fd_registry_ready = 0;
cutilsp_dlist ukup_fd_list = {};

ukup_fd_record* record_of(cutilsp_dlist_item* item) {
    return reinterpret_cast<ukup_fd_record*>(item);
}

// Closes every node in the child of a fork: the devices are the parent's. It takes no lock, since no thread
// would be left to release it, and frees no records, since another thread may have been inside the allocator
// at the time of the fork. The records stay behind on purpose.
void ukup_fd_child_atfork_handler() {
    for (cutilsp_dlist_item* item = ukup_fd_list.first; item != nullptr; item = item->next) {
        ::close(record_of(item)->fd);
    }
    ukup_fd_list = {};
}

// With the mutex held: puts a descriptor into the list; 1 if that worked.
std::uint32_t add_record(std::int32_t fd) {
    if (ukup_fd_registry_ready == 0) {
        ukup_fd_list = {};
        if (::pthread_atfork(nullptr, nullptr, ukup_fd_child_atfork_handler) != 0) {
            return 0;
        }
        ukup_fd_registry_ready = 1;
    }
    auto* record = static_cast<ukup_fd_record*>(std::malloc(sizeof(ukup_fd_record)));
    if (record == nullptr) {
        return 0;
    }
    record->fd = fd;
    cutilsp_dlist_push_front(&ukup_fd_list, &record->links);
    return 1;
}

// Remembers an open descriptor; 1 if that worked, otherwise 0.
std::uint32_t ukup_fd_add(std::int32_t fd) {
    if (::pthread_mutex_lock(&ukup_fd_mutex) != 0) {
        return 0;
    }
    const std::uint32_t result = add_record(fd);
    ::pthread_mutex_unlock(&ukup_fd_mutex);
    return result;
}

bool is_reached(const timespec& now, const timespec& deadline) {
    return now.tv_sec > deadline.tv_sec || (now.tv_sec == deadline.tv_sec && now.tv_nsec >= deadline.tv_nsec);
}

// Returns when the node exists, or when the time is up: opening it then tells.
void wait_for_node(const char* name) {
    timespec deadline{};
    ::clock_gettime(CLOCK_MONOTONIC_RAW, &deadline);
    deadline.tv_sec += NODE_WAIT_SECONDS;
    struct stat status {};
    while (::stat(name, &status) != 0) {
        ::usleep(NODE_POLL_MICROSECONDS);
        timespec now{};
        ::clock_gettime(CLOCK_MONOTONIC_RAW, &now);
        if (is_reached(now, deadline)) {
            return;
        }
    }
}

bool is_character_device(std::int32_t fd) {
    struct stat status {};
    return ::fstat(fd, &status) == 0 && S_ISCHR(status.st_mode);
}

// What the driver serves, seen from what was asked for. A higher minor is an exact answer.
uku_open_result compare(const base_version_record& wanted, const base_version_record& served) {
    return wanted.major != served.major || wanted.minor > served.minor ? UKU_OPEN_OTHER_VERSION
                                                                       : UKU_OPEN_SUCCESS;
}

}  // namespace

uku_open_result uku_open(std::uint32_t client, std::uint32_t instance, base_version_record* version,
                         uku_context* ctx) {
    if (client != UKU_CLIENT) {
        return UKU_OPEN_FAILURE;
    }
    char name[NODE_NAME_SIZE];
    cutils_cstr_snprintf(name, sizeof name, "%s%d", NODE_PREFIX, static_cast<std::int32_t>(instance));
    wait_for_node(name);
    const std::int32_t fd = ::open(name, O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd == -1) {
        return UKU_OPEN_FAILURE;
    }
    base_version_record served = *version;
    if (is_character_device(fd)) {
        ctx->fd = fd;
        if (basep_ioctl_version_check(ctx, &served) == BASE_SUCCESS) {
            const uku_open_result result = compare(*version, served);
            *version = served;
            if (ukup_fd_add(fd) != 0) {
                return result;
            }
        }
    }
    ::close(fd);
    return UKU_OPEN_FAILURE;
}

void uku_close(const uku_context* ctx) {
    if (::pthread_mutex_lock(&ukup_fd_mutex) != 0) {
        return;
    }
    for (cutilsp_dlist_item* item = ukup_fd_list.first; item != nullptr; item = item->next) {
        if (record_of(item)->fd == ctx->fd) {
            cutilsp_dlist_remove_item(&ukup_fd_list, item);
            std::free(record_of(item));
            ::close(ctx->fd);
            break;
        }
    }
    ::pthread_mutex_unlock(&ukup_fd_mutex);
}

std::int32_t uku_get_fd(const uku_context* ctx) {
    return ctx->fd;
}

void uku_set_instance(uku_context* ctx, std::uint32_t instance) {
    ctx->instance = instance;
}

std::uint32_t uku_ddk_compatible(const base_gpu_props* props, std::uint32_t verbose, std::uint32_t instance) {
    std::int32_t major = props->major_revision;
    std::int32_t minor = props->minor_revision;
    std::int32_t status = props->version_status;
    // Each GPU is a decision of its own, also where two end alike.
    switch (props->product_id & PRODUCT_ID_MASK) {
        case 0x9002:
            if (status <= BUILT_FOR_STATUS_MAX) {
                return 1;
            }
            break;
        case 0x9004:
            return 1;
        case 0xb002:
        case 0xb003:
            major = minor = status = 0;  // the message names no revision of these
            break;
        case 0xa007:
        default:
            break;
    }
    if (verbose != 0) {
        char name[NODE_NAME_SIZE];
        cutils_cstr_snprintf(name, sizeof name, "%s%u", NODE_PREFIX, instance);
        cdbg_print_to_error_channel(
            "ERROR: The DDK (built for 0x%x r%dp%d status range [%d..%d]) is not compatible with this Vexa "
            "GPU device, %s detected as 0x%x r%dp%d status %d.",
            BUILT_FOR_ID, BUILT_FOR_MAJOR_REVISION, BUILT_FOR_MINOR_REVISION, BUILT_FOR_STATUS_MIN,
            BUILT_FOR_STATUS_MAX, name, props->product_id, major, minor, status);
    }
    return 0;
}
