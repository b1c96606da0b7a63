// Operating system support over POSIX threads and Linux.
#include "osu/vexa_osu.h"

#include <dlfcn.h>
#include <sched.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>

#include "cdbg/failure.h"
#include "cdbg/print.h"
#include "osu/platform_dummy/vexa_osu_private.h"

namespace {

constexpr std::uint64_t nanoseconds_per_second = 1'000'000'000;
// The last second that a time_t of 32 bits can tell.
constexpr std::uint64_t last_second = 0x7fffffff;

// Affinity masks are words of 32 bits here, on every target.
constexpr std::uint32_t mask_bits = 32;
constexpr std::uint32_t deferrable_mask = 0xf;

// Constant-initialised, since start-up may run before this library's own initialisers. The report of a failed
// start-up takes static mutexes that were never initialised: zero-filled ones are valid unlocked mutexes on
// Linux.
constinit std::atomic<osup_thread_callback_function> osup_thread_callback = nullptr;
constinit pthread_key_t osup_tls_key = 0;
constinit pthread_mutex_t osup_static_mutexes[OSUP_STATIC_MUTEX_COUNT] = {};

int result_of(bool success) {
    return success ? OSUP_SUCCESS : OSUP_FAILURE;
}

[[noreturn]] void quit_startup(const char* location, const char* message) {
    cdbgp_print_to_important_channel(CDBGP_CHANNEL_ERROR, CDBGP_FEATURE_ERROR,
                                     cdbgp_module_to_str(CDBGP_MODULE_OSU), location, "osup_startup",
                                     message);
    cdbgp_quit();
}

bool init_static_mutexes() {
    return std::all_of(std::begin(osup_static_mutexes), std::end(osup_static_mutexes),
                       [](pthread_mutex_t& mutex) { return pthread_mutex_init(&mutex, nullptr) == 0; });
}

// The part of a sync object's initialisation that the attributes are for.
int init_sync_object(osup_sync_object* object, const pthread_condattr_t* cond_attributes,
                     const pthread_mutexattr_t* mutex_attributes) {
    const bool cond_made = pthread_cond_init(&object->cond, cond_attributes) == 0;
    const bool mutex_made = pthread_mutex_init(&object->mutex, mutex_attributes) == 0;
    object->state = 0;
    if (cond_made && !mutex_made) {
        pthread_cond_destroy(&object->cond);
    }
    if (mutex_made && !cond_made) {
        pthread_mutex_destroy(&object->mutex);
    }
    return result_of(cond_made && mutex_made);
}

int read_thread_name(char* name) {
    return prctl(PR_GET_NAME, name, 0L, 0L, 0L);
}

// The kernel is told of 4 bytes of mask whatever its own masks have: it takes a short mask and reads the
// cores behind it as absent, also on 64-bit processors. Only the reading of a mask wants whole words.
bool set_affinity(std::uint32_t mask) {
    cpu_set_t cores = {};
    std::memcpy(&cores, &mask, sizeof mask);
    return sched_setaffinity(0, sizeof mask, &cores) == 0;
}

}  // namespace

extern "C" {

// Runs on every ending thread that has thread data.
static void osu_user_tls_destructor(void* value) {
    // Read once: it may be unset between a test and a call.
    if (const osup_thread_callback_function callback = osup_thread_callback.load(); callback != nullptr) {
        callback(value);
    }
}

}  // extern "C"

void osup_startup() {
    if (pthread_key_create(&osup_tls_key, osu_user_tls_destructor) != 0) {
        quit_startup(CDBGP_LOCATION, "Failed to setup TLS generic key");
    }
    if (!init_static_mutexes()) {
        quit_startup(CDBGP_LOCATION, "Failed to init static mutexes");
    }
}

void osup_teardown() {
    if (void* value = osup_thread_data_get(); value != nullptr) {
        osu_user_tls_destructor(value);
    }
    pthread_key_delete(osup_tls_key);
}

void osup_thread_callback_set(osup_thread_callback_function callback) {
    osup_thread_callback = callback;
}

void osup_thread_callback_unset() {
    osup_thread_callback = nullptr;
}

void* osup_thread_data_get() {
    return pthread_getspecific(osup_tls_key);
}

int osup_thread_data_set(void* value) {
    return pthread_setspecific(osup_tls_key, value) == 0 ? OSUP_THREAD_DATA_STORED : OSUP_THREAD_DATA_REFUSED;
}

void* osup_register_new_thread_callback(void* argument) {
    return argument;
}

int osup_thread_create(pthread_t* thread, osup_thread_function start, void* argument) {
    return result_of(pthread_create(thread, nullptr, start, argument) == 0);
}

// prctl cuts a name that is too long, where pthread_setname_np refuses it.
int osup_thread_setname(const char* name) {
    return result_of(prctl(PR_SET_NAME, name, 0L, 0L, 0L) == 0);
}

void osup_thread_getname(char* buffer, size_t size) {
    if (buffer == nullptr || size == 0) {
        return;
    }
    // The kernel writes 16 bytes, however many there are.
    if (size >= OSUP_THREAD_NAME_SIZE) {
        buffer[read_thread_name(buffer) == 0 ? OSUP_THREAD_NAME_SIZE - 1 : 0] = '\0';
        return;
    }
    char name[OSUP_THREAD_NAME_SIZE] = {};
    if (read_thread_name(name) != 0) {
        buffer[0] = '\0';
        return;
    }
    std::memcpy(buffer, name, size);
    buffer[size - 1] = '\0';
}

int osup_mutex_lock(pthread_mutex_t* mutex) {
    return pthread_mutex_lock(mutex);
}

int osup_mutex_unlock(pthread_mutex_t* mutex) {
    return pthread_mutex_unlock(mutex);
}

int osup_d_mutex_term(pthread_mutex_t* mutex) {
    return pthread_mutex_destroy(mutex);
}

int osup_spinlock_lock(pthread_mutex_t* spinlock) {
    return osup_mutex_lock(spinlock);
}

int osup_spinlock_unlock(pthread_mutex_t* spinlock) {
    return osup_mutex_unlock(spinlock);
}

int osup_spinlock_term(pthread_mutex_t* spinlock) {
    return osup_d_mutex_term(spinlock);
}

pthread_mutex_t* osup_mutex_static_get(uint32_t index) {
    return &osup_static_mutexes[index];
}

timespec osup_deadline(const timespec& now, std::uint64_t nanoseconds) {
    std::uint64_t seconds = static_cast<std::uint64_t>(now.tv_sec) + nanoseconds / nanoseconds_per_second;
    std::uint64_t rest = static_cast<std::uint64_t>(now.tv_nsec) + nanoseconds % nanoseconds_per_second;
    if (rest >= nanoseconds_per_second) {
        rest -= nanoseconds_per_second;
        ++seconds;
    }
    timespec deadline = {};
    deadline.tv_sec = static_cast<time_t>(std::min(seconds, last_second));
    deadline.tv_nsec = static_cast<long>(rest);
    return deadline;
}

int osup_sem_init(sem_t* semaphore, uint32_t value) {
    return result_of(sem_init(semaphore, 0, value) == 0);
}

int osup_sem_term(sem_t* semaphore) {
    return sem_destroy(semaphore);
}

int osup_sem_trywait(sem_t* semaphore) {
    return result_of(sem_trywait(semaphore) == 0);
}

int osup_sem_wait(sem_t* semaphore) {
    while (sem_wait(semaphore) != 0) {
        if (errno != EINTR) {
            return errno;
        }
    }
    return OSUP_SEM_WAIT_DONE;
}

int osup_sem_timedwait(sem_t* semaphore, uint64_t nanoseconds) {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    const timespec deadline = osup_deadline(now, nanoseconds);
    while (sem_timedwait(semaphore, &deadline) != 0) {
        if (errno != EINTR) {
            return OSUP_FAILURE;
        }
    }
    return OSUP_SUCCESS;
}

int osup_sem_post(sem_t* semaphore) {
    return sem_post(semaphore);
}

int osup_sync_object_init(osup_sync_object* object) {
    pthread_mutexattr_t mutex_attributes;
    if (pthread_mutexattr_init(&mutex_attributes) != 0) {
        return OSUP_FAILURE;
    }
    int result = OSUP_FAILURE;
    pthread_condattr_t cond_attributes;
    if (pthread_condattr_init(&cond_attributes) == 0) {
        if (pthread_condattr_setclock(&cond_attributes, CLOCK_MONOTONIC) == 0 &&
            pthread_mutexattr_settype(&mutex_attributes, PTHREAD_MUTEX_ERRORCHECK) == 0) {
            result = init_sync_object(object, &cond_attributes, &mutex_attributes);
        }
        pthread_condattr_destroy(&cond_attributes);
    }
    pthread_mutexattr_destroy(&mutex_attributes);
    return result;
}

int osup_sync_object_wait(osup_sync_object* object) {
    pthread_mutex_lock(&object->mutex);
    if (object->state == 0) {
        // Once only, deliberately: whoever wakes the condition ends the wait.
        pthread_cond_wait(&object->cond, &object->mutex);
    }
    return pthread_mutex_unlock(&object->mutex);
}

int osup_sync_object_timedwait(osup_sync_object* object, uint64_t nanoseconds) {
    if (pthread_mutex_lock(&object->mutex) != 0) {
        return OSUP_FAILURE;
    }
    int waited = 0;
    if (object->state == 0) {
        timespec now = {};
        clock_gettime(CLOCK_MONOTONIC, &now);
        const timespec deadline = osup_deadline(now, nanoseconds);
        // Once only, as above.
        waited = pthread_cond_timedwait(&object->cond, &object->mutex, &deadline);
    }
    return result_of(pthread_mutex_unlock(&object->mutex) == 0 && waited == 0);
}

int osup_sync_object_set_and_broadcast(osup_sync_object* object) {
    pthread_mutex_lock(&object->mutex);
    if (object->state == 0) {
        object->state = 1;
        pthread_cond_broadcast(&object->cond);
    }
    return pthread_mutex_unlock(&object->mutex);
}

int osup_sync_object_clear(osup_sync_object* object) {
    pthread_mutex_lock(&object->mutex);
    object->state = 0;
    return pthread_mutex_unlock(&object->mutex);
}

int osup_sync_object_term(osup_sync_object* object) {
    pthread_cond_destroy(&object->cond);
    return pthread_mutex_destroy(&object->mutex);
}

int osup_dlopen(void** handle_out, const char* name) {
    *handle_out = dlopen(name, RTLD_NOW | RTLD_LOCAL);
    return result_of(*handle_out != nullptr);
}

int osup_dlsym(void** symbol_out, void* const* handle, const char* name) {
    // A symbol's value may be null. Only the text of an error, after the old one was cleared, tells that from
    // failure.
    dlerror();
    *symbol_out = dlsym(*handle, name);
    return result_of(dlerror() == nullptr);
}

int osup_dlclose(void* const* handle) {
    return dlclose(*handle);
}

int osup_get_number_of_cpu_cores() {
    return static_cast<int>(sysconf(_SC_NPROCESSORS_CONF));
}

void osup_thread_setdeferrability(int deferrable) {
    std::uint32_t mask = deferrable_mask;
    if (deferrable == 0) {
        const std::uint32_t cores = static_cast<std::uint32_t>(std::max(osup_get_number_of_cpu_cores(), 0));
        mask = cores < mask_bits ? (1U << cores) - 1 : UINT32_MAX;
    }
    set_affinity(mask);
}

void osup_set_core_id(uint32_t core) {
    if (set_affinity(core < mask_bits ? 1U << core : 0)) {
        return;
    }
    char name[OSUP_THREAD_NAME_SIZE] = {};
    osup_thread_getname(name, sizeof name);
    cdbg_print_to_error_channel("Unable to set requested CPU core %u for thread [%s].", core, name);
}
