#include "dsp/kernels.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

namespace quibo {

extern const Kernels kernels_scalar;
#if defined(__x86_64__)
extern const Kernels kernels_sse2, kernels_avx2, kernels_avx512;
#elif defined(__aarch64__)
extern const Kernels kernels_neon;
#endif

namespace {

struct Variant {
  const Kernels* kernels;
  bool (*runs_here)();
};

bool always() {
  return true;
}

// Slowest first; the last one that runs here is the default.
const Variant kVariants[] = {
    {&kernels_scalar, always},
#if defined(__x86_64__)
    {&kernels_sse2, always},
    {&kernels_avx2, [] { return __builtin_cpu_supports("avx2") != 0; }},
    {&kernels_avx512, [] { return __builtin_cpu_supports("avx512f") != 0; }},
#elif defined(__aarch64__)
    {&kernels_neon, always},
#endif
};

const Kernels* in_use;

void choose_kernels() {
  const char* wanted = getenv("QUIBO_KERNELS");
  if (wanted && *wanted && use_kernels(wanted)) return;
  for (int i = 0; available_kernels(i); ++i) in_use = available_kernels(i);
  if (wanted && *wanted) {
    fprintf(stderr, "quibo: QUIBO_KERNELS=%s is not available here, using %s\n", wanted,
            in_use->name);
  }
}

}  // namespace

const Kernels& kernels() {
  if (!in_use) choose_kernels();
  return *in_use;
}

const Kernels* available_kernels(int i) {
  for (const Variant& v : kVariants) {
    if (v.runs_here() && i-- == 0) return v.kernels;
  }
  return nullptr;
}

bool use_kernels(const char* name) {
  for (int i = 0; const Kernels* k = available_kernels(i); ++i) {
    if (strcmp(k->name, name) == 0) {
      in_use = k;
      return true;
    }
  }
  return false;
}

}  // namespace quibo
