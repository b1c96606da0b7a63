/* The library's entry point, for C and C++. */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/* Connects the process to the system's tracing service, offers the GPU's counters there and parks the calling
 * thread for the life of the process. It returns only when the GPU can't be identified, after one error in
 * the log. To be called once, from any thread. The service need not run: the connection is made, and made
 * again, whenever it does. */
/* NOLINTNEXTLINE(modernize-redundant-void-arg): C reads this too. */
__attribute__((visibility("default"))) void start(void);

#ifdef __cplusplus
}
#endif
