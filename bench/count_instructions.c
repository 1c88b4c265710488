/* A plugin for QEMU's user mode: prints how many instructions the program has executed. Debian ships no qemu-plugin.h;
 * the few declarations needed stand here (plugin interface version 1, QEMU 4.2 and later). */
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#define EXPORT __attribute__((visibility("default")))

typedef uint64_t Id;
struct qemu_plugin_tb;
enum { kAddUint64 = 0 };

size_t qemu_plugin_tb_n_insns(const struct qemu_plugin_tb*);
void qemu_plugin_register_vcpu_tb_trans_cb(Id, void (*)(Id, struct qemu_plugin_tb*));
void qemu_plugin_register_vcpu_tb_exec_inline(struct qemu_plugin_tb*, int, void*, uint64_t);
void qemu_plugin_register_atexit_cb(Id, void (*)(Id, void*), void*);

EXPORT int qemu_plugin_version = 1;

static uint64_t executed;

static void count_block(Id id, struct qemu_plugin_tb* block) {
  (void)id;
  qemu_plugin_register_vcpu_tb_exec_inline(block, kAddUint64, &executed,
                                           qemu_plugin_tb_n_insns(block));
}

static void report(Id id, void* unused) {
  (void)id, (void)unused;
  fprintf(stderr, "executed %llu\n", (unsigned long long)executed);
}

EXPORT int qemu_plugin_install(Id id, const void* info, int argc, char** argv) {
  (void)info, (void)argc, (void)argv;
  qemu_plugin_register_vcpu_tb_trans_cb(id, count_block);
  qemu_plugin_register_atexit_cb(id, report, NULL);
  return 0;
}
