// Brings operating system support up before main, as loading the library does.
#include "osu/platform_dummy/vexa_osu_private.h"

namespace {

[[maybe_unused]] const bool started = [] {
    osup_startup();
    return true;
}();

}  // namespace
