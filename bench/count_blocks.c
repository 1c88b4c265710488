/* A plugin for QEMU's user mode: how often the program has executed each of its basic blocks, by the module that was at
 * work, and what is in them. Arguments: module1=FUNCTION ... names the calls that begin a module, rest=FUNCTION those that
 * belong to none. At exit one line per block goes to standard error:
 *
 *   block INSTRUCTIONS SYMBOL BYTES COUNT0 COUNT1 ...    (hexadecimal bytes; COUNT0 is that of no module)
 *
 * Debian ships no qemu-plugin.h; the few declarations needed stand here (plugin interface version 1, QEMU 4.2 and later). */
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define EXPORT __attribute__((visibility("default")))

typedef uint64_t Id;
struct qemu_plugin_tb;
struct qemu_plugin_insn;
enum { kNoRegisters = 0 };

size_t qemu_plugin_tb_n_insns(const struct qemu_plugin_tb*);
struct qemu_plugin_insn* qemu_plugin_tb_get_insn(const struct qemu_plugin_tb*, size_t);
const void* qemu_plugin_insn_data(const struct qemu_plugin_insn*);
size_t qemu_plugin_insn_size(const struct qemu_plugin_insn*);
const char* qemu_plugin_insn_symbol(const struct qemu_plugin_insn*);
void qemu_plugin_register_vcpu_tb_trans_cb(Id, void (*)(Id, struct qemu_plugin_tb*));
void qemu_plugin_register_vcpu_tb_exec_cb(struct qemu_plugin_tb*, void (*)(unsigned, void*), int,
                                          void*);
void qemu_plugin_register_atexit_cb(Id, void (*)(Id, void*), void*);

EXPORT int qemu_plugin_version = 1;

enum { kMaxModules = 16, kMaxRest = 8 };

struct Block {
  struct Block* next;
  int enters; /* module, or -1 */
  size_t instructions, size;
  const char* symbol;
  uint8_t* bytes;
  uint64_t executed[kMaxModules];
};

static struct Block* blocks;
static char *modules[kMaxModules], *rest[kMaxRest];
static int module_count = 1, rest_count, current;

static int module_of(const char* symbol) {
  for (int i = 1; symbol && i < module_count; ++i) {
    if (strcmp(symbol, modules[i]) == 0) return i;
  }
  for (int i = 0; symbol && i < rest_count; ++i) {
    if (strcmp(symbol, rest[i]) == 0) return 0;
  }
  return -1;
}

static void executed(unsigned cpu, void* data) {
  (void)cpu;
  struct Block* block = data;
  if (block->enters >= 0) current = block->enters;
  ++block->executed[current];
}

static void translated(Id id, struct qemu_plugin_tb* tb) {
  (void)id;
  struct Block* block = calloc(1, sizeof *block);
  block->instructions = qemu_plugin_tb_n_insns(tb);
  for (size_t i = 0; i < block->instructions; ++i) {
    const struct qemu_plugin_insn* insn = qemu_plugin_tb_get_insn(tb, i);
    const size_t size = qemu_plugin_insn_size(insn);
    block->bytes = realloc(block->bytes, block->size + size);
    memcpy(block->bytes + block->size, qemu_plugin_insn_data(insn), size);
    block->size += size;
    if (i == 0 && qemu_plugin_insn_symbol(insn)) {
      block->symbol = strdup(qemu_plugin_insn_symbol(insn));
    }
  }
  block->enters = module_of(block->symbol);
  block->next = blocks;
  blocks = block;
  qemu_plugin_register_vcpu_tb_exec_cb(tb, executed, kNoRegisters, block);
}

static void report(Id id, void* unused) {
  (void)id, (void)unused;
  for (const struct Block* block = blocks; block; block = block->next) {
    fprintf(stderr, "block %zu %s ", block->instructions, block->symbol ? block->symbol : "?");
    for (size_t i = 0; i < block->size; ++i) fprintf(stderr, "%02x", block->bytes[i]);
    for (int i = 0; i < module_count; ++i) {
      fprintf(stderr, " %llu", (unsigned long long)block->executed[i]);
    }
    fprintf(stderr, "\n");
  }
}

EXPORT int qemu_plugin_install(Id id, const void* info, int argc, char** argv) {
  (void)info;
  for (int i = 0; i < argc; ++i) {
    char* name = strchr(argv[i], '=');
    if (!name) return -1;
    if (strncmp(argv[i], "rest", 4) == 0 && rest_count < kMaxRest) {
      rest[rest_count++] = strdup(name + 1);
    } else if (module_count < kMaxModules) {
      modules[module_count++] = strdup(name + 1);
    }
  }
  qemu_plugin_register_vcpu_tb_trans_cb(id, translated);
  qemu_plugin_register_atexit_cb(id, report, NULL);
  return 0;
}
