/* Operating system support, exported to the library's clients: thread data and names, mutexes, semaphores,
 * sync objects, dynamic loading, processors and the library's unload. For C and C++.
 *
 * Any thread may call any of these, from the library's load on. Unless a comment says otherwise the result is
 * OSUP_SUCCESS or OSUP_FAILURE, which stands for any error of the system's. Objects are the caller's memory:
 * they are made by an _init or by pthread's own means, stay where they are, and nobody waits on one that is
 * terminated. No operation takes a null address where it needs an object or a text. */
#pragma once

/* NOLINTBEGIN(modernize-deprecated-headers,modernize-redundant-void-arg,modernize-use-using): C reads this
 * too. */
#include <pthread.h>
#include <semaphore.h>
#include <stddef.h>
#include <stdint.h>

#define OSUP_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

enum osup_result { OSUP_SUCCESS = 0, OSUP_FAILURE = 1 };

/* Results that are the other way round, deliberately. */
enum osup_thread_data_result { OSUP_THREAD_DATA_REFUSED = 0, OSUP_THREAD_DATA_STORED = 1 };
enum { OSUP_SEM_WAIT_DONE = 1 };

/* The bytes of a thread's name with its terminator. */
enum { OSUP_THREAD_NAME_SIZE = 16 };

/* How many mutexes osup_mutex_static_get knows. */
enum { OSUP_STATIC_MUTEX_COUNT = 19 };

typedef void (*osup_thread_callback_function)(void* value);
typedef void* (*osup_thread_function)(void* argument);
typedef void (*osup_unload_callback_function)(void* argument);

/* An event that stays set until it is cleared. */
typedef struct osup_sync_object {
    pthread_cond_t cond;   /* waits on CLOCK_MONOTONIC */
    pthread_mutex_t mutex; /* error-checking */
    uint8_t state;         /* 1 when set */
} osup_sync_object;

/* Thread data: one word for each thread. The callback is called on every ending thread whose word is not
 * null, with that word, and once more when the library is unloaded, for the thread that unloads it. It is one
 * for the process, and threads that end while it is changed may still use the former one. */
OSUP_API void osup_thread_callback_set(osup_thread_callback_function callback);
OSUP_API void osup_thread_callback_unset(void);
/* The calling thread's word, null before it is set. */
OSUP_API void* osup_thread_data_get(void);
/* Sets it. Returns an osup_thread_data_result: it is refused when there is no memory. */
OSUP_API int osup_thread_data_set(void* value);

/* A hook that is empty on this platform, deliberately: returns its argument. */
OSUP_API void* osup_register_new_thread_callback(void* argument);

/* Starts a joinable thread with default attributes, on which start(argument) runs. pthread_join gives what it
 * returns. After a failure `thread` must not be used. */
OSUP_API int osup_thread_create(pthread_t* thread, osup_thread_function start, void* argument);

/* The calling thread's name, a terminated text. Setting cuts it to 15 characters. Getting stores at most 15
 * characters, or `size` - 1, and a terminator, and an empty text on failure; without a buffer or with a
 * `size` of 0 it does nothing. */
OSUP_API int osup_thread_setname(const char* name);
OSUP_API void osup_thread_getname(char* buffer, size_t size);

/* Mutexes and spinlocks are the same on this platform: pthread mutexes of any kind, which the caller makes.
 * `term` destroys one that nobody holds. The results are those of the pthread calls, 0 or an errno. */
OSUP_API int osup_mutex_lock(pthread_mutex_t* mutex);
OSUP_API int osup_mutex_unlock(pthread_mutex_t* mutex);
OSUP_API int osup_d_mutex_term(pthread_mutex_t* mutex);
OSUP_API int osup_spinlock_lock(pthread_mutex_t* spinlock);
OSUP_API int osup_spinlock_unlock(pthread_mutex_t* spinlock);
OSUP_API int osup_spinlock_term(pthread_mutex_t* spinlock);

/* One of the process-wide mutexes, which exist as long as the library is loaded. What each one guards is
 * fixed by its index. The index must be below OSUP_STATIC_MUTEX_COUNT: it is not tested. */
OSUP_API pthread_mutex_t* osup_mutex_static_get(uint32_t index);

/* Semaphores of one process. `value` is the count to begin with; one above SEM_VALUE_MAX fails. */
OSUP_API int osup_sem_init(sem_t* semaphore, uint32_t value);
/* Returns what sem_destroy returns, 0 or -1 with errno. */
OSUP_API int osup_sem_term(sem_t* semaphore);
/* Takes one from the count, or fails at once when it is 0. */
OSUP_API int osup_sem_trywait(sem_t* semaphore);
/* Waits until there is one to take. Returns OSUP_SEM_WAIT_DONE, or the errno of a failure. Signals do not end
 * the wait. */
OSUP_API int osup_sem_wait(sem_t* semaphore);
/* Fails after a time-out in nanoseconds on CLOCK_REALTIME. Signals neither end nor prolong the wait. No wait
 * lasts beyond second 0x7fffffff of the clock. */
OSUP_API int osup_sem_timedwait(sem_t* semaphore, uint64_t nanoseconds);
/* Adds one to the count. Returns what sem_post returns, 0 or -1 with errno. */
OSUP_API int osup_sem_post(sem_t* semaphore);

/* Sync objects. Initialisation leaves the object cleared, and nothing to terminate if it fails. */
OSUP_API int osup_sync_object_init(osup_sync_object* object);
/* Returns at once if the object is set, otherwise when it is set or the wait wakes for no reason: it waits
 * once, and its caller looks again if that matters. Returns the result of unlocking the mutex. */
OSUP_API int osup_sync_object_wait(osup_sync_object* object);
/* The same with a time-out in nanoseconds on CLOCK_MONOTONIC: fails at the time-out. No wait lasts beyond
 * second 0x7fffffff of the clock. */
OSUP_API int osup_sync_object_timedwait(osup_sync_object* object, uint64_t nanoseconds);
/* Both return the result of unlocking the mutex. */
OSUP_API int osup_sync_object_set_and_broadcast(osup_sync_object* object);
OSUP_API int osup_sync_object_clear(osup_sync_object* object);
/* Returns the result of destroying the mutex. */
OSUP_API int osup_sync_object_term(osup_sync_object* object);

/* Dynamic loading, with immediate and local binding. `name` is a file's or a symbol's as dlopen and dlsym
 * take it; a null file name means the program itself. What could not be found is stored as null, and the
 * thread's dlerror is used up by dlsym. A symbol whose value is null is found all the same. The handle is
 * passed by its address. */
OSUP_API int osup_dlopen(void** handle_out, const char* name);
OSUP_API int osup_dlsym(void** symbol_out, void* const* handle, const char* name);
/* Returns what dlclose returns, 0 or another number. */
OSUP_API int osup_dlclose(void* const* handle);

/* The number of configured processors, -1 if it is unknown. */
OSUP_API int osup_get_number_of_cpu_cores(void);

/* Where the calling thread may run: with `deferrable` on cores 0 to 3, whatever cores there are; without it
 * on every configured core below 32. A refusal by the kernel is ignored. */
OSUP_API void osup_thread_setdeferrability(int deferrable);

/* Keeps the calling thread on one core, counted from 0. If the kernel refuses, as it always does for a core
 * above 31, an error is printed and nothing changes. */
OSUP_API void osup_set_core_id(uint32_t core);

/* Callbacks at the unload of the library, or at the end of the process if that comes first: each runs once
 * for each registration, with its argument, the last registered first, on the thread that unloads the library
 * or ends the process. No lock is held, so that a callback may call both operations; but it cannot stop a
 * callback that was still registered when the unload began, and what it registers is not run. After the last
 * callback neither operation may be called any more.
 *
 * Registering fails when there is no memory. Deregistering removes every registration of this callback with
 * this argument, and it is no error if there is none. */
OSUP_API int osup_register_unload_callback(osup_unload_callback_function callback, void* argument);
OSUP_API void osup_deregister_unload_callback(osup_unload_callback_function callback, void* argument);

#ifdef __cplusplus
}
#endif
/* NOLINTEND(modernize-deprecated-headers,modernize-redundant-void-arg,modernize-use-using) */
