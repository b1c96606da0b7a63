// The library's entry point.
#pragma once

// Connects the process to the system's tracing service, offers the GPU's counters there and parks the calling
// thread for the life of the process. It returns only when the GPU can't be identified, after one error in
// the log. To be called once, from any thread. The service need not run: the connection is made, and made
// again, whenever it does.
extern "C" __attribute__((visibility("default"))) void start();
