// Four lanes: NEON. Contract in simd_scalar.h. Fused multiply-add is never used.
//
// On 32-bit ARM, NEON takes denormals for zero and gives zero for them, whatever the processor's mode;
// that is the one thing in which it breaks the contract. Divisions and square roots, which it does
// not have there, are the scalar unit's, lane by lane.
#pragma once

#include <arm_neon.h>
#include <math.h>

#include "dsp/simd_scalar.h"

namespace quibo {
namespace {

#if defined(__aarch64__)
constexpr int kNeonRegisters = 32;

inline float32x4_t neon_div(float32x4_t a, float32x4_t b) {
  return vdivq_f32(a, b);
}
inline float32x4_t neon_sqrt(float32x4_t a) {
  return vsqrtq_f32(a);
}
inline uint32x4_t neon_greater(float32x4_t a, float32x4_t b) {
  return vcgtq_f32(a, b);
}
#else
constexpr int kNeonRegisters = 16;

inline float32x4_t neon_div(float32x4_t a, float32x4_t b) {
  return a / b;
}
inline float32x4_t neon_sqrt(float32x4_t a) {
  return float32x4_t{sqrtf(a[0]), sqrtf(a[1]), sqrtf(a[2]), sqrtf(a[3])};
}
// In assembler, because GCC compares lane by lane for the sake of denormals.
inline uint32x4_t neon_greater(float32x4_t a, float32x4_t b) {
  uint32x4_t mask;
  asm("vcgt.f32 %q0, %q1, %q2" : "=w"(mask) : "w"(a), "w"(b));
  return mask;
}
#endif

struct NeonF32 {
  using Four = NeonF32;
  using Reg = float32x4_t;
  static constexpr int kWidth = 4;
  static constexpr int kRegisters = kNeonRegisters;

  static Reg load(const float* p) { return vld1q_f32(p); }
  static void store(float* p, Reg v) { vst1q_f32(p, v); }
  static Reg splat(float v) { return vdupq_n_f32(v); }
  static Reg add(Reg a, Reg b) { return vaddq_f32(a, b); }
  static Reg sub(Reg a, Reg b) { return vsubq_f32(a, b); }
  static Reg mul(Reg a, Reg b) { return vmulq_f32(a, b); }
  static Reg mul_add(Reg sum, Reg a, Reg b) { return add(sum, mul(a, b)); }
  static Reg div(Reg a, Reg b) { return neon_div(a, b); }
  static Reg sqrt(Reg a) { return neon_sqrt(a); }
  // vmaxq and vminq would return the NaN; a comparison and a select keep the second operand
  // instead.
  static Reg larger(Reg a, Reg b) { return vbslq_f32(neon_greater(a, b), a, b); }
  static Reg smaller(Reg a, Reg b) { return vbslq_f32(neon_greater(b, a), a, b); }
  static Reg where_greater(Reg a, Reg b, Reg x, Reg y) {
    return vbslq_f32(neon_greater(a, b), x, y);
  }
  static Reg shift_to_exponent(Reg a) {
    return vreinterpretq_f32_u32(vshlq_n_u32(vreinterpretq_u32_f32(a), 23));
  }
  static void transpose(Reg& a, Reg& b, Reg& c, Reg& d) {
    const float32x4x2_t ab = vtrnq_f32(a, b), cd = vtrnq_f32(c, d);
    a = vcombine_f32(vget_low_f32(ab.val[0]), vget_low_f32(cd.val[0]));
    b = vcombine_f32(vget_low_f32(ab.val[1]), vget_low_f32(cd.val[1]));
    c = vcombine_f32(vget_high_f32(ab.val[0]), vget_high_f32(cd.val[0]));
    d = vcombine_f32(vget_high_f32(ab.val[1]), vget_high_f32(cd.val[1]));
  }
  static float fold(Reg a) {
    const float32x2_t pair = vadd_f32(vget_low_f32(a), vget_high_f32(a));
    return vget_lane_f32(vpadd_f32(pair, pair), 0);
  }
  static void load_pairs(const float* p, Reg& re, Reg& im) {
    const float32x4x2_t pairs = vld2q_f32(p);
    re = pairs.val[0];
    im = pairs.val[1];
  }
  static void store_pairs(float* p, Reg re, Reg im) { vst2q_f32(p, float32x4x2_t{{re, im}}); }
  static Reg reverse(Reg v) {
    const Reg swapped = vrev64q_f32(v);
    return vextq_f32(swapped, swapped, 2);
  }
  template <int count>
  static Reg lead(Reg a, Reg b) {
    return count == 1 ? vsetq_lane_f32(vgetq_lane_f32(a, 0), b, 0) : a;
  }
  static Reg load_repeat4(const float* p) { return vdupq_n_f32(*p); }
  static void store_columns(float* p, Reg y0, Reg y1, Reg y2, Reg y3) {
    vst4q_f32(p, float32x4x4_t{{y0, y1, y2, y3}});
  }
  static void store_quads(float* p, Reg y0, Reg y1, Reg y2, Reg y3) {
    store(p, y0);
    store(p + 4, y1);
    store(p + 8, y2);
    store(p + 12, y3);
  }
};

}  // namespace
}  // namespace quibo
