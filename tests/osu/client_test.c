/* A client in C: the exported operations through the public header alone. */
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "osu/vexa_osu.h"

#define EXPECT(holds) (void)((holds) || (failures += printf("line %d: %s\n", __LINE__, #holds)))

static int failures;
static sem_t arrived;
static osup_sync_object open_now;
static void* ended_with;

static void note_end(void* value) {
    ended_with = value;
}

static void* end_with_word(void* word) {
    EXPECT(osup_thread_data_get() == NULL);
    EXPECT(osup_thread_data_set(word) == 1 && osup_thread_data_get() == word);
    EXPECT(osup_sem_post(&arrived) == 0 && osup_sync_object_wait(&open_now) == 0);
    return word;
}

/* What the callback gets of a thread that ends with a word. */
static void* ending_of_thread(void* word) {
    pthread_t thread;
    void* result = NULL;
    ended_with = NULL;
    EXPECT(osup_sem_init(&arrived, 1) == OSUP_SUCCESS && osup_sem_trywait(&arrived) == OSUP_SUCCESS &&
           osup_sync_object_init(&open_now) == OSUP_SUCCESS);
    EXPECT(osup_thread_create(&thread, end_with_word, word) == 0);
    EXPECT(osup_sem_wait(&arrived) == 1 && osup_sem_trywait(&arrived) == 1);
    EXPECT(osup_sync_object_set_and_broadcast(&open_now) == 0 && osup_sync_object_wait(&open_now) == 0);
    EXPECT(pthread_join(thread, &result) == 0 && result == word);
    EXPECT(osup_sync_object_clear(&open_now) == 0 &&
           osup_sync_object_timedwait(&open_now, 9) == OSUP_FAILURE);
    EXPECT(pthread_mutex_unlock(&open_now.mutex) == EPERM); /* it knows its owner */
    EXPECT(osup_sync_object_set_and_broadcast(&open_now) == 0 &&
           osup_sync_object_timedwait(&open_now, 9) == OSUP_SUCCESS);
    EXPECT(pthread_mutex_lock(&open_now.mutex) == 0);
    EXPECT(osup_sync_object_timedwait(&open_now, 9) == OSUP_FAILURE &&
           pthread_mutex_unlock(&open_now.mutex) == 0);
    EXPECT(osup_sync_object_term(&open_now) == 0 && osup_sem_term(&arrived) == 0);
    return ended_with;
}

/* Reads this thread's name into a buffer of `size` bytes; `stored` has what lies around it too. */
static int reads_name(size_t size, const char* stored) {
    char buffer[] = "#####################";
    osup_thread_getname(buffer + 1, size);
    return memcmp(buffer, stored, sizeof buffer) == 0;
}

int main(void) {
    osup_thread_callback_set(note_end);
    EXPECT(ending_of_thread(&failures) == &failures);
    osup_thread_callback_unset();
    EXPECT(ending_of_thread(&failures) == NULL);
    EXPECT(osup_register_new_thread_callback(&failures) == &failures);

    EXPECT(osup_thread_setname("0123456789abcdefgh") == OSUP_SUCCESS);
    EXPECT(reads_name(0, "#####################"));
    EXPECT(reads_name(4, "#012\0################"));
    EXPECT(reads_name(15, "#0123456789abcd\0#####"));
    EXPECT(reads_name(16, "#0123456789abcde\0####"));
    EXPECT(reads_name(20, "#0123456789abcde\0####"));

    pthread_mutex_t mutex = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;
    EXPECT(osup_mutex_lock(&mutex) == 0 && osup_spinlock_lock(&mutex) == EDEADLK);
    EXPECT(osup_spinlock_unlock(&mutex) == 0 && osup_mutex_unlock(&mutex) == EPERM);
    EXPECT(osup_spinlock_term(&mutex) == 0);
    for (uint32_t i = 0; i < OSUP_STATIC_MUTEX_COUNT; ++i) { /* if two were one, the second would be taken */
        EXPECT(pthread_mutex_trylock(osup_mutex_static_get(i)) == 0);
    }

    /* Binding is local, and null is a value that a symbol may have. */
    void *handle = NULL, *self = NULL, *symbol = NULL;
    EXPECT(osup_dlopen(&handle, "no_such_library.so") == OSUP_FAILURE && handle == NULL);
    EXPECT(osup_dlopen(&self, NULL) == OSUP_SUCCESS);
    EXPECT(osup_dlopen(&handle, OTHER_LIBRARY) == OSUP_SUCCESS);
    EXPECT(osup_dlsym(&symbol, &self, OTHER_SYMBOL) == OSUP_FAILURE && symbol == NULL);
    EXPECT(osup_dlsym(&symbol, &handle, OTHER_SYMBOL) == OSUP_SUCCESS && symbol != NULL);
#ifndef __ANDROID__ /* whose linker adds the program's place to every symbol */
    EXPECT(osup_dlsym(&symbol, &self, "osu_client_null_symbol") == OSUP_SUCCESS && symbol == NULL);
#endif
    EXPECT(osup_dlclose(&handle) == 0 && osup_dlclose(&self) == 0);

    EXPECT(osup_register_unload_callback(note_end, &failures) == OSUP_SUCCESS);
    osup_deregister_unload_callback(note_end, &failures);
    return failures == 0 ? 0 : 1;
}
