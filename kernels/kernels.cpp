#include "dsp/kernels.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kernels/checked_kernels.h"

#if defined(__x86_64__)
#include <cpuid.h>
#elif (defined(__aarch64__) || defined(__arm__)) && defined(__linux__)
#include <asm/hwcap.h>
#include <sys/auxv.h>
#endif

namespace quibo {

// The build names the variants it has as V(scalar)V(sse2)..., slowest first; the last one that runs
// here is the default. The vnni, dotprod and i8mm rows differ from the row they extend in the
// integer kernels only.
#define V(isa) extern const Kernels kernels_##isa;
QUIBO_VARIANTS
QUIBO_FUSED_VARIANTS
#undef V

namespace {

// Whether the processor has what a variant is compiled for.

bool has_scalar() {
  return true;
}

#if defined(__x86_64__)
bool has_sse2() {
  return true;
}
bool has_avx2() {
  return __builtin_cpu_supports("avx2");
}
bool has_avx512() {
  return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw");
}
// Asked of the processor itself: not every compiler's __builtin_cpu_supports() knows it.
bool has_avxvnni() {
  constexpr unsigned kExtendedFeatures = 7, kSubleaf = 1, kAvxVnni = 1u << 4;  // in eax
  unsigned eax, ebx, ecx, edx;
  return has_avx2() && __get_cpuid_count(kExtendedFeatures, kSubleaf, &eax, &ebx, &ecx, &edx) &&
         (eax & kAvxVnni);
}
bool has_avx2_fused() {
  return has_avx2() && __builtin_cpu_supports("fma");
}
bool has_avx512_fused() {
  return has_avx512() && __builtin_cpu_supports("fma");
}
bool has_avx512vnni() {
  return has_avx512() && __builtin_cpu_supports("avx512vnni");
}
#elif defined(__aarch64__)
bool has_neon() {
  return true;
}
bool has_neon_fused() {
  return true;
}
#if defined(__linux__)
bool has_neon_dotprod() {
  return getauxval(AT_HWCAP) & HWCAP_ASIMDDP;
}
bool has_neon_i8mm() {
  return has_neon_dotprod() && (getauxval(AT_HWCAP2) & HWCAP2_I8MM);
}
#else  // no way to ask
bool has_neon_dotprod() {
  return false;
}
bool has_neon_i8mm() {
  return false;
}
#endif
#elif defined(__arm__)
#if defined(__linux__)
bool has_neon_int8() {
  return getauxval(AT_HWCAP) & HWCAP_NEON;
}
#else  // no way to ask
bool has_neon_int8() {
  return false;
}
#endif
bool has_neon_fused() {
  return has_neon_int8();
}
#elif defined(__wasm_simd128__)
bool has_wasm() {
  return true;
}
#endif

struct Variant {
  const Kernels* kernels;
  bool (*runs_here)();
};

const Variant kVariants[] = {
#define V(isa) {&kernels_##isa, has_##isa},
    QUIBO_VARIANTS
#undef V
};

// Not the same bits: in use where QUIBO_FUSED was built in, or by name. Slowest first, too.
const Variant kFusedVariants[] = {
#define V(isa) {&kernels_##isa, has_##isa},
    QUIBO_FUSED_VARIANTS
#undef V
    {nullptr, has_scalar},
};

const Kernels* in_use;

void choose_kernels() {
  const char* wanted = getenv("QUIBO_KERNELS");
  if (wanted && *wanted && use_kernels(wanted)) return;
  for (int i = 0; available_kernels(i); ++i) in_use = available_kernels(i);
#ifdef QUIBO_FUSED
  for (int i = 0; fused_kernels(i); ++i) in_use = fused_kernels(i);
#endif
  if (wanted && *wanted) {
    fprintf(stderr, "quibo: QUIBO_KERNELS=%s is not available here, using %s\n", wanted,
            in_use->name);
  }
}

}  // namespace

const Kernels& kernels() {
  if (!in_use) choose_kernels();
#ifdef QUIBO_CHECK_KERNELS
  return checked_kernels(*in_use);
#else
  return *in_use;
#endif
}

namespace {

template <int count>
const Kernels* nth_that_runs(const Variant (&variants)[count], int i) {
  for (const Variant& v : variants) {
    if (v.runs_here() && i-- == 0) return v.kernels;
  }
  return nullptr;
}

}  // namespace

const Kernels* available_kernels(int i) {
  return nth_that_runs(kVariants, i);
}

const Kernels* fused_kernels(int i) {
  return nth_that_runs(kFusedVariants, i);
}

namespace {

bool use_named(const Kernels* (*variants)(int), const char* name) {
  for (int i = 0; const Kernels* k = variants(i); ++i) {
    if (strcmp(k->name, name) == 0) {
      in_use = k;
      return true;
    }
  }
  return false;
}

}  // namespace

bool use_kernels(const char* name) {
  return use_named(available_kernels, name) || use_named(fused_kernels, name);
}

}  // namespace quibo
