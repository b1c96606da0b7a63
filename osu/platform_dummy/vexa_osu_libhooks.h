// What happens when the library is loaded and unloaded.
#pragma once

extern "C" {

// Brings operating system support and the list of unload callbacks up. Only the first call does anything. A
// failure is reported, and the process ends.
void osup_constructor();

// Runs the unload callbacks and brings operating system support down. Only the first call does anything.
void osup_destructor();

}  // extern "C"

namespace osup {

// A library has no main: an object of this class brings its foundations up and down with it.
class dynamic_library_load_unload_handler {
public:
    dynamic_library_load_unload_handler() { osup_constructor(); }
    ~dynamic_library_load_unload_handler() { osup_destructor(); }
    dynamic_library_load_unload_handler(const dynamic_library_load_unload_handler&) = delete;
    dynamic_library_load_unload_handler& operator=(const dynamic_library_load_unload_handler&) = delete;
};

}  // namespace osup
