/* A client in C: the exported operations through the public header alone, on threads and libraries of its
 * own. */
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "osu/vexa_osu.h"

#define EXPECT(holds) expect((holds), #holds, __LINE__)

static int failures;

static void expect(int holds, const char* what, int line) {
    if (!holds) {
        printf("line %d: %s\n", line, what);
        ++failures;
    }
}

static sem_t arrived;
static osup_sync_object open_now;
static void* ended_with;

static void note_end(void* value) {
    ended_with = value;
}

static void* end_with_word(void* word) {
    EXPECT(osup_thread_data_get() == NULL);
    EXPECT(osup_thread_data_set(word) == OSUP_THREAD_DATA_STORED && osup_thread_data_get() == word);
    osup_thread_setdeferrability(1);
    EXPECT(osup_sem_post(&arrived) == 0);
    EXPECT(osup_sync_object_wait(&open_now) == 0);
    return word;
}

/* A thread's word reaches the callback, if there are both. */
static void test_threads(void) {
    const struct {
        osup_thread_callback_function callback;
        void* word;
        void* ended_with;
    } cases[] = {{note_end, &failures, &failures}, {note_end, NULL, NULL}, {NULL, &failures, NULL}};
    for (size_t i = 0; i < sizeof cases / sizeof *cases; ++i) {
        pthread_t thread;
        void* result = NULL;
        ended_with = NULL;
        if (cases[i].callback != NULL) { /* else the last one was unset */
            osup_thread_callback_set(cases[i].callback);
        }
        EXPECT(osup_sem_init(&arrived, 0) == OSUP_SUCCESS &&
               osup_sync_object_init(&open_now) == OSUP_SUCCESS);
        EXPECT(osup_thread_create(&thread, end_with_word, cases[i].word) == OSUP_SUCCESS);
        EXPECT(osup_sem_wait(&arrived) == OSUP_SEM_WAIT_DONE && osup_sem_trywait(&arrived) == OSUP_FAILURE);
        EXPECT(osup_sync_object_timedwait(&open_now, 1000) == OSUP_FAILURE);
        EXPECT(osup_sync_object_set_and_broadcast(&open_now) == 0 && osup_sync_object_wait(&open_now) == 0);
        EXPECT(pthread_join(thread, &result) == 0 && result == cases[i].word);
        EXPECT(ended_with == cases[i].ended_with);
        EXPECT(osup_sync_object_clear(&open_now) == 0);
        EXPECT(osup_sync_object_timedwait(&open_now, 1000) == OSUP_FAILURE);
        EXPECT(osup_sync_object_term(&open_now) == 0 && osup_sem_term(&arrived) == 0);
        osup_thread_callback_unset();
    }
    EXPECT(osup_sem_init(&arrived, UINT32_MAX) == OSUP_FAILURE);
    EXPECT(osup_register_new_thread_callback(&failures) == &failures);
}

/* Names are cut to 15 characters when they are set, and to the buffer when they are read. */
static void test_names(void) {
    const struct {
        const char* name;
        size_t size;
        char stored[21]; /* with what lies behind it */
    } cases[] = {
        {"abcdefgh", 0, "####################"},
        {"abcdefgh", 1, "\0###################"},
        {"abcdefgh", 4, "abc\0################"},
        {"abcdefgh", 12, "abcdefgh\0\0\0\0########"},
        {"0123456789abcdefgh", 15, "0123456789abcd\0#####"},
        {"0123456789abcdefgh", 16, "0123456789abcde\0####"},
        {"0123456789abcdefgh", 20, "0123456789abcde\0####"},
    };
    for (size_t i = 0; i < sizeof cases / sizeof *cases; ++i) {
        char buffer[20];
        memset(buffer, '#', sizeof buffer);
        EXPECT(osup_thread_setname(cases[i].name) == OSUP_SUCCESS);
        osup_thread_getname(buffer, cases[i].size);
        EXPECT(memcmp(buffer, cases[i].stored, sizeof buffer) == 0);
    }
    osup_thread_getname(NULL, sizeof cases);
}

static void test_mutexes(void) {
    pthread_mutex_t mutex = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;
    EXPECT(osup_mutex_lock(&mutex) == 0);
    EXPECT(osup_mutex_lock(&mutex) == EDEADLK && osup_spinlock_lock(&mutex) == EDEADLK);
    EXPECT(osup_d_mutex_term(&mutex) == EBUSY && osup_spinlock_term(&mutex) == EBUSY);
    EXPECT(osup_spinlock_unlock(&mutex) == 0);
    EXPECT(osup_mutex_unlock(&mutex) == EPERM && osup_spinlock_unlock(&mutex) == EPERM);
    EXPECT(osup_d_mutex_term(&mutex) == 0);
    /* A sync object's mutex knows its owner. */
    EXPECT(osup_sync_object_init(&open_now) == OSUP_SUCCESS);
    EXPECT(osup_sync_object_set_and_broadcast(&open_now) == 0 && pthread_mutex_lock(&open_now.mutex) == 0);
    EXPECT(osup_sync_object_timedwait(&open_now, 0) == OSUP_FAILURE);
    EXPECT(osup_sync_object_term(&open_now) == EBUSY && pthread_mutex_unlock(&open_now.mutex) == 0);
    for (uint32_t i = 0; i < OSUP_STATIC_MUTEX_COUNT; ++i) { /* if two were one, the second would be taken */
        EXPECT(pthread_mutex_trylock(osup_mutex_static_get(i)) == 0);
    }
    for (uint32_t i = 0; i < OSUP_STATIC_MUTEX_COUNT; ++i) {
        EXPECT(osup_mutex_unlock(osup_mutex_static_get(i)) == 0);
    }
}

/* Binding is immediate and local, and null is a value that a symbol may have. */
static void test_dynamic_loading(void) {
    void* handle = NULL;
    void* self = NULL;
    void* symbol = NULL;
    EXPECT(osup_dlopen(&handle, "no_such_library.so") == OSUP_FAILURE && handle == NULL);
    /* This one leaves functions to be defined by a debugger: only lazy binding would load it. */
    EXPECT(osup_dlopen(&handle, "libthread_db.so.1") == OSUP_FAILURE && handle == NULL);
    EXPECT(osup_dlopen(&self, NULL) == OSUP_SUCCESS &&
           osup_dlopen(&handle, "libresolv.so.2") == OSUP_SUCCESS);
    EXPECT(osup_dlsym(&symbol, &self, "ns_samename") == OSUP_FAILURE && symbol == NULL);
    EXPECT(osup_dlsym(&symbol, &handle, "ns_samename") == OSUP_SUCCESS && symbol != NULL);
    EXPECT(osup_dlsym(&symbol, &self, "osu_client_null_symbol") == OSUP_SUCCESS && symbol == NULL);
    EXPECT(osup_dlclose(&handle) == 0 && osup_dlclose(&self) == 0);
}

int main(void) {
    test_threads();
    test_names();
    test_mutexes();
    test_dynamic_loading();
    return failures;
}
