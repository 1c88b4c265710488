// The registers of the other families with a multiply-add that is one operation and, but on 32-bit
// ARM, rounds once, for who wants speed more than the same bits on every processor. Only what sums
// products is fused: the networks' kernels take mul_add(), the transforms and the canceller keep
// their bits. Since its order is free, too, a large product is one sum instead of four lanes.
#pragma once

#if defined(__FMA__)
#include "dsp/simd_avx2.h"
#endif
#if defined(__FMA__) && defined(__AVX512F__)
#include "dsp/simd_avx512.h"
#endif
#if defined(__ARM_NEON)
#include "dsp/simd_neon.h"
#endif

namespace quibo {
namespace {

#if defined(__FMA__)
struct Sse2FusedF32 : Sse2F32 {
  static Reg mul_add(Reg sum, Reg a, Reg b) { return _mm_fmadd_ps(a, b, sum); }
};

struct Avx2FusedF32 : Avx2F32 {
  using Four = Sse2FusedF32;
  static Reg mul_add(Reg sum, Reg a, Reg b) { return _mm256_fmadd_ps(a, b, sum); }
};
template <>
constexpr int kSumLanes<Avx2FusedF32> = 1;
#endif

#if defined(__FMA__) && defined(__AVX512F__)
struct Avx512FusedF32 : Avx512F32 {
  using Four = Sse2FusedF32;
  static Reg mul_add(Reg sum, Reg a, Reg b) { return _mm512_fmadd_ps(a, b, sum); }
};
template <>
constexpr int kSumLanes<Avx512FusedF32> = 1;
#endif

#if defined(__aarch64__)
struct NeonFusedF32 : NeonF32 {
  using Four = NeonFusedF32;
  static Reg mul_add(Reg sum, Reg a, Reg b) { return vfmaq_f32(sum, a, b); }
};
template <>
constexpr int kSumLanes<NeonFusedF32> = 1;
#elif defined(__ARM_NEON)
// One instruction here too, but VMLA, which rounds the product: the one that rounds once takes no
// factor from a lane, and every NEON has VMLA. Its sums have four lanes, too, so that nothing but the
// flushed denormals makes these bits other than the exact ones.
struct NeonFusedF32 : NeonF32 {
  using Four = NeonFusedF32;
  static Reg mul_add(Reg sum, Reg a, Reg b) { return vmlaq_f32(sum, a, b); }
};
#endif

}  // namespace
}  // namespace quibo
