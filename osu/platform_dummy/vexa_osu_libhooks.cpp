// The library's load and unload: brings operating system support up and down, and runs the clients'
// callbacks.
#include "osu/platform_dummy/vexa_osu_libhooks.h"

#include <pthread.h>

#include <cstddef>
#include <cstdlib>

#include "cdbg/failure.h"
#include "cutils/dlist/vexa_cutils_dlist.h"
#include "osu/platform_dummy/vexa_osu_private.h"
#include "osu/vexa_osu.h"
#include "stx/load_order.h"

namespace {

// A registration, from malloc.
struct unload_callback {
    cutilsp_dlist_item item;
    osup_unload_callback_function callback;
    void* argument;
};
static_assert(offsetof(unload_callback, item) == 0, "an item's address is its record's");

// Guards the list, and is never held while a callback runs.
constinit pthread_mutex_t osup_unload_mutex = {};
// Oldest first.
constinit cutilsp_dlist osup_unload_list = {};

constinit pthread_once_t osup_constructor_once = PTHREAD_ONCE_INIT;
constinit pthread_once_t osup_destructor_once = PTHREAD_ONCE_INIT;

[[gnu::init_priority(
    VEXA_LOAD_ORDER_LIBRARY_HOOKS)]] osup::dynamic_library_load_unload_handler library_handler;

unload_callback* record_of(cutilsp_dlist_item* item) {
    return reinterpret_cast<unload_callback*>(item);
}

// Leaves what callbacks register from here on in the global list, where nothing runs or frees it.
void run_unload_callbacks() {
    pthread_mutex_lock(&osup_unload_mutex);
    cutilsp_dlist callbacks = osup_unload_list;
    osup_unload_list = {};
    pthread_mutex_unlock(&osup_unload_mutex);

    while (callbacks.last != nullptr) {
        unload_callback* const last = record_of(callbacks.last);
        cutilsp_dlist_remove_item(&callbacks, &last->item);
        last->callback(last->argument);
        std::free(last);
    }
}

}  // namespace

extern "C" {

static void osup_constructor_routine() {
    osup_startup();
    osup_unload_list = {};
    if (pthread_mutex_init(&osup_unload_mutex, nullptr) != 0) {
        // Named after the step that failed, deliberately, and not after this function.
        cdbgp_print_to_important_channel(CDBGP_CHANNEL_ERROR, CDBGP_FEATURE_ERROR,
                                         cdbgp_module_to_str(CDBGP_MODULE_OSU), CDBGP_LOCATION,
                                         "osup_init_unload_hooks", "Failed to init unload hook mutexes");
        cdbgp_quit();
    }
}

static void osup_destructor_routine() {
    run_unload_callbacks();
    pthread_mutex_destroy(&osup_unload_mutex);
    osup_teardown();
}

}  // extern "C"

void osup_constructor() {
    pthread_once(&osup_constructor_once, osup_constructor_routine);
}

void osup_destructor() {
    pthread_once(&osup_destructor_once, osup_destructor_routine);
}

int osup_register_unload_callback(osup_unload_callback_function callback, void* argument) {
    pthread_mutex_lock(&osup_unload_mutex);
    auto* const record = static_cast<unload_callback*>(std::malloc(sizeof(unload_callback)));
    if (record != nullptr) {
        *record = {.item = {}, .callback = callback, .argument = argument};
        cutilsp_dlist_push_back(&osup_unload_list, &record->item);
    }
    pthread_mutex_unlock(&osup_unload_mutex);
    return record != nullptr ? OSUP_SUCCESS : OSUP_FAILURE;
}

void osup_deregister_unload_callback(osup_unload_callback_function callback, void* argument) {
    pthread_mutex_lock(&osup_unload_mutex);
    for (cutilsp_dlist_item* item = osup_unload_list.first; item != nullptr;) {
        unload_callback* const record = record_of(item);
        item = item->next;
        if (record->callback == callback && record->argument == argument) {
            cutilsp_dlist_remove_item(&osup_unload_list, &record->item);
            std::free(record);
        }
    }
    pthread_mutex_unlock(&osup_unload_mutex);
}
