// Start-up of diagnostics, and the end of the process after a fatal report.
#include "cdbg/src/vexa_cdbg_failure.h"

#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <iterator>

#include "cdbg/failure.h"
#include "cdbg/src/vexa_cdbg_control.h"
#include "cdbg/src/vexa_cdbg_env.h"
#include "cdbg/src/vexa_cdbg_print.h"
#include "osu/vexa_osu.h"
#include "stdlib/vexa_stdlib.h"

namespace {

// The static mutexes of diagnostics. INIT is taken before STATE.
enum cdbgp_static_mutex : std::uint32_t {
    CDBGP_STATIC_MUTEX_INIT = 1,   // held by the thread that runs the initialisers
    CDBGP_STATIC_MUTEX_STATE = 2,  // guards the two fields below, for a few instructions at a time
};

constinit std::atomic<bool> cdbgp_init_done = false;
// The process in which a thread is about to watch forks, or one of these.
constexpr pid_t CDBGP_FORKS_UNWATCHED = 0;
constexpr pid_t CDBGP_FORKS_WATCHED = -1;
constinit std::atomic<pid_t> cdbgp_fork_watcher = CDBGP_FORKS_UNWATCHED;
// In the child of a fork: diagnostics was at work in another thread, and will never be done with it.
constinit bool cdbgp_init_lost = false;
constinit bool cdbgp_init_running = false;
constinit pthread_t cdbgp_init_thread = {};

struct cdbgp_initialiser {
    cdbgp_result (*init)();
    void (*term)();
};

// The last one needs no undoing, since nothing comes after it that could fail.
constexpr cdbgp_initialiser initialisers[] = {
    {cdbgp_env_init, cdbgp_env_term},
    {cdbgp_control_init, cdbgp_control_term},
    {cdbgp_print_init, cdbgp_print_term},
    {cdbgp_failure_init, nullptr},
};

cdbgp_result run_initialisers() {
    for (const cdbgp_initialiser* next = std::begin(initialisers); next != std::end(initialisers); ++next) {
        if (const cdbgp_result result = next->init(); result != CDBGP_SUCCESS) {
            while (next != std::begin(initialisers)) {
                (--next)->term();
            }
            return result;
        }
    }
    return CDBGP_SUCCESS;
}

bool is_free(cdbgp_static_mutex index) {
    pthread_mutex_t* const mutex = osup_mutex_static_get(index);
    if (pthread_mutex_trylock(mutex) != 0) {
        return false;
    }
    pthread_mutex_unlock(mutex);
    return true;
}

// In the child of a fork, before anything else. A message that another thread was at in the parent stays
// unfinished here: whoever waited for its slot or its locks would wait for ever. Such a child goes without
// diagnostics; any other has it as its parent had. Nothing is asked of the parent, neither at its messages
// nor at its forks, where locking everything beforehand would have it wait for its slowest stream.
void go_without_if_at_work() {
    const bool at_rest = is_free(CDBGP_STATIC_MUTEX_INIT) && is_free(CDBGP_STATIC_MUTEX_STATE) &&
                         (!cdbgp_init_done.load() || (cdbgp_env_is_at_rest() && cdbgp_print_is_at_rest()));
    if (!at_rest) {
        cdbgp_init_lost = true;
        cdbgp_init_done.store(false);
    }
}

// No thread starts diagnostics before forks are watched, or could not be: the child of a fork that nobody
// watched would wait for the locks of start-up for ever. Where such a child comes from the moment in which
// its parent was about to watch, it does so itself.
void watch_forks() {
    const pid_t self = getpid();
    for (pid_t watcher = cdbgp_fork_watcher.load(); watcher != CDBGP_FORKS_WATCHED;
         watcher = cdbgp_fork_watcher.load()) {
        if (watcher == self) {
            sched_yield();  // until the other thread is done
        } else if (cdbgp_fork_watcher.compare_exchange_strong(watcher, self)) {
            const bool is_watched = pthread_atfork(nullptr, nullptr, go_without_if_at_work) == 0;
            cdbgp_fork_watcher.store(is_watched ? CDBGP_FORKS_WATCHED : CDBGP_FORKS_UNWATCHED);
            return;  // where it failed, the next one tries again
        }
    }
}

// What an initialiser prints through the ordinary operations is dropped: waiting for the end of start-up
// would be waiting for itself.
bool is_starting_on_this_thread() {
    pthread_mutex_t* const state = osup_mutex_static_get(CDBGP_STATIC_MUTEX_STATE);
    osup_mutex_lock(state);
    const bool result = cdbgp_init_running && pthread_equal(cdbgp_init_thread, pthread_self()) != 0;
    osup_mutex_unlock(state);
    return result;
}

void set_running(bool running) {
    pthread_mutex_t* const state = osup_mutex_static_get(CDBGP_STATIC_MUTEX_STATE);
    osup_mutex_lock(state);
    if (running) {
        cdbgp_init_thread = pthread_self();
    }
    cdbgp_init_running = running;
    osup_mutex_unlock(state);
}

}  // namespace

constinit cdbgp_failure_record cdbgp_failure_state = {};

cdbgp_result cdbgp_init() {
    if (cdbgp_init_done.load(std::memory_order_acquire)) {
        return CDBGP_SUCCESS;
    }
    if (cdbgp_init_lost) {
        return CDBGP_FAILURE;
    }
    watch_forks();
    if (is_starting_on_this_thread()) {
        return CDBGP_FAILURE;
    }
    pthread_mutex_t* const init = osup_mutex_static_get(CDBGP_STATIC_MUTEX_INIT);
    osup_mutex_lock(init);
    set_running(true);
    cdbgp_result result = CDBGP_SUCCESS;
    // Another thread may have finished while this one waited.
    if (!cdbgp_init_done.load(std::memory_order_acquire)) {
        result = run_initialisers();
        if (result == CDBGP_SUCCESS) {
            cdbgp_init_done.store(true, std::memory_order_release);
        }
    }
    set_running(false);
    osup_mutex_unlock(init);
    return result;
}

cdbgp_result cdbgp_failure_init() {
    if (pthread_mutex_init(&cdbgp_failure_state.lock, nullptr) != 0) {
        CDBGP_REPORT_INIT("Initialization of spin lock failed (%d)", OSUP_FAILURE);
        return CDBGP_FAILURE;
    }
    cdbgp_failure_state.flags = 0;
    cdbgp_failure_state.ids[0] = UINT64_MAX;
    cdbgp_failure_state.ids[1] = UINT64_MAX;
    cdbgp_failure_state.count = 0;
    return CDBGP_SUCCESS;
}

void cdbgp_quit() {
    stdlib_abort();
}
