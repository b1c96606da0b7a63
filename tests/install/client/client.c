/* A client of the installed library, compiled as C and as C++: runs an unload callback when it ends. */
#include <counterfeed/start.h>
#include <counterfeed/vexa_osu.h>
#include <stdio.h>

static void say_goodbye(void* name) {
    printf("unloaded after %s\n", (const char*)name);
}

int main(void) {
    static char name[OSUP_THREAD_NAME_SIZE] = "";
    void (*volatile entry)(void) = start; /* linked to, and not called: it would not return */
    osup_thread_setname("an installed client");
    osup_thread_getname(name, sizeof name);
    return entry != NULL && osup_register_unload_callback(say_goodbye, name) == OSUP_SUCCESS ? 0 : 1;
}
