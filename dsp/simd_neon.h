// Four lanes: NEON on AArch64. Contract in simd_scalar.h. Fused multiply-add is never used.
#pragma once

#include <arm_neon.h>

#include "dsp/simd_scalar.h"

namespace quibo {
namespace {

struct NeonF32 {
  using Reg = float32x4_t;
  static constexpr int kWidth = 4;

  static Reg load(const float* p) { return vld1q_f32(p); }
  static void store(float* p, Reg v) { vst1q_f32(p, v); }
  static Reg splat(float v) { return vdupq_n_f32(v); }
  static Reg add(Reg a, Reg b) { return vaddq_f32(a, b); }
  static Reg sub(Reg a, Reg b) { return vsubq_f32(a, b); }
  static Reg mul(Reg a, Reg b) { return vmulq_f32(a, b); }
  static Reg div(Reg a, Reg b) { return vdivq_f32(a, b); }
  static Reg sqrt(Reg a) { return vsqrtq_f32(a); }
  // vmaxq and vminq would return the NaN; a comparison and a select keep the second operand
  // instead.
  static Reg larger(Reg a, Reg b) { return vbslq_f32(vcgtq_f32(a, b), a, b); }
  static Reg smaller(Reg a, Reg b) { return vbslq_f32(vcltq_f32(a, b), a, b); }
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
    return count == 1 ? vcopyq_laneq_f32(b, 0, a, 0) : a;
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
