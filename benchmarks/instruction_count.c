/* A plugin of the emulator qemu-user that counts the instructions of each thread, and prints the counts when the
 * program ends. The emulator's package has no header for its plugins: what is used of it is declared here. */
#include <stdatomic.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

struct qemu_plugin_tb;
typedef void tb_callback(uint64_t id, struct qemu_plugin_tb* block);
typedef void exec_callback(unsigned thread, void* data);
typedef void exit_callback(uint64_t id, void* data);
void qemu_plugin_register_vcpu_tb_trans_cb(uint64_t id, tb_callback* callback);
void qemu_plugin_register_vcpu_tb_exec_cb(struct qemu_plugin_tb* block, exec_callback* callback, int flags,
                                          void* data);
void qemu_plugin_register_atexit_cb(uint64_t id, exit_callback* callback, void* data);
size_t qemu_plugin_tb_n_insns(const struct qemu_plugin_tb* block);
void qemu_plugin_outs(const char* text);

#define EXPORTED __attribute__((visibility("default")))
EXPORTED int qemu_plugin_version = 1;

enum { no_registers = 0, most_threads = 64 };
static _Atomic uint64_t counts[most_threads];

static void count(unsigned thread, void* instructions) {
    atomic_fetch_add_explicit(&counts[thread % most_threads], (uintptr_t)instructions, memory_order_relaxed);
}

static void see_block(uint64_t id, struct qemu_plugin_tb* block) {
    (void)id;
    qemu_plugin_register_vcpu_tb_exec_cb(block, count, no_registers, (void*)qemu_plugin_tb_n_insns(block));
}

static void print_counts(uint64_t id, void* data) {
    (void)id;
    (void)data;
    char line[80];
    for (unsigned thread = 0; thread < most_threads; ++thread) {
        snprintf(line, sizeof line, "instructions of thread %u: %llu\n", thread,
                 (unsigned long long)counts[thread]);
        qemu_plugin_outs(line);
    }
}

EXPORTED int qemu_plugin_install(uint64_t id, const void* info, int argument_count, char** arguments) {
    (void)info;
    (void)argument_count;
    (void)arguments;
    qemu_plugin_register_vcpu_tb_trans_cb(id, see_block);
    qemu_plugin_register_atexit_cb(id, print_counts, NULL);
    return 0;
}
