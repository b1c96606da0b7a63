// Brings operating system support up before main, as loading the library does.
#include "osu/platform_dummy/vexa_osu_private.h"

[[gnu::constructor]] static void start() {
    osup_startup();
}
