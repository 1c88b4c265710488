// Four lanes: NEON, two taps with the base instructions, four with the dot-product ones. Contract
// in int8_scalar.h, on 32-bit ARM too: no float here is ever denormal.
#pragma once

#include <string.h>

#include "dsp/int8_scalar.h"
#include "dsp/simd_neon.h"

namespace quibo {
namespace {

#if defined(__aarch64__)
inline int32x4_t neon_pair_sums(int32x4_t a, int32x4_t b) {
  return vpaddq_s32(a, b);
}
inline int32x4_t neon_round(float32x4_t x) {
  return vcvtaq_s32_f32(x);
}
#else
inline int32x4_t neon_pair_sums(int32x4_t a, int32x4_t b) {
  return vcombine_s32(vpadd_s32(vget_low_s32(a), vget_high_s32(a)),
                      vpadd_s32(vget_low_s32(b), vget_high_s32(b)));
}
inline int32x4_t neon_round(float32x4_t x) {
  const uint32x4_t sign = vandq_u32(vreinterpretq_u32_f32(x), vdupq_n_u32(0x80000000u));
  const uint32x4_t half = vreinterpretq_u32_f32(vdupq_n_f32(kBelowHalf));
  return vcvtq_s32_f32(vaddq_f32(x, vreinterpretq_f32_u32(vorrq_u32(half, sign))));
}
#endif

struct NeonInt8 {
  using Float = NeonF32;
  using Reg = int32x4_t;
  using Codes = int16x8_t;
  static constexpr int kLanes = 4;
  static constexpr int kTaps = 2;

  static Reg load(const int32_t* p) { return vld1q_s32(p); }
  static void store(int32_t* p, Reg v) { vst1q_s32(p, v); }
  static Reg splat(int32_t v) { return vdupq_n_s32(v); }
  static Reg add(Reg a, Reg b) { return vaddq_s32(a, b); }
  static Codes load_codes(const uint8_t* p) { return widen(vld1_u8(p)); }
  static Codes repeat_codes(const uint8_t* p) {
    uint16_t pair;
    memcpy(&pair, p, sizeof pair);
    return widen(vreinterpret_u8_u16(vdup_n_u16(pair)));
  }
  static Reg multiply_add(Reg s, Codes c, const int8_t* w) {
    // A product of a uint8 and an int8 fits 16 bits.
    return vpadalq_s16(s, vmulq_s16(c, vmovl_s8(vld1_s8(w))));
  }
  static Reg pair_sums(Reg a, Reg b) { return neon_pair_sums(a, b); }
  static Reg load_bytes(const uint8_t* p) {
    uint32_t four;
    memcpy(&four, p, sizeof four);
    const uint16x8_t words = vmovl_u8(vreinterpret_u8_u32(vdup_n_u32(four)));
    return vreinterpretq_s32_u32(vmovl_u16(vget_low_u16(words)));
  }
  static void store_bytes(uint8_t* p, Reg v) {
    const uint16x4_t words = vqmovun_s32(v);
    const uint8x8_t bytes = vqmovn_u16(vcombine_u16(words, words));
    const uint32_t four = vget_lane_u32(vreinterpret_u32_u8(bytes), 0);
    memcpy(p, &four, sizeof four);
  }
  static Float::Reg to_float(Reg v) { return vcvtq_f32_s32(v); }
  static Reg round(Float::Reg x) { return neon_round(x); }

 private:
  static Codes widen(uint8x8_t bytes) { return vreinterpretq_s16_u16(vmovl_u8(bytes)); }
};

#if defined(__ARM_FEATURE_DOTPROD)
// Four taps with udot, which wants both sides unsigned: the weights enter as w + 128, and 128 times
// the codes' own sum is taken off again.
struct NeonDotInt8 : NeonInt8 {
  static constexpr int kTaps = 4;
  struct Codes {
    uint8x16_t bytes;
    uint32x4_t excess;
  };

  static Codes load_codes(const uint8_t* p) { return make_codes(vld1q_u8(p)); }
  static Codes repeat_codes(const uint8_t* p) {
    uint32_t four;
    memcpy(&four, p, sizeof four);
    return make_codes(vreinterpretq_u8_u32(vdupq_n_u32(four)));
  }
  static Reg multiply_add(Reg s, const Codes& c, const int8_t* w) {
    const uint8x16_t shifted = veorq_u8(vreinterpretq_u8_s8(vld1q_s8(w)), vdupq_n_u8(128));
    const uint32x4_t sum = vdotq_u32(vreinterpretq_u32_s32(s), c.bytes, shifted);
    return vreinterpretq_s32_u32(vsubq_u32(sum, c.excess));
  }

 private:
  static Codes make_codes(uint8x16_t bytes) {
    return {bytes, vdotq_u32(vdupq_n_u32(0), bytes, vdupq_n_u8(128))};
  }
};
#endif

#if defined(__ARM_FEATURE_MATMUL_INT8)
// Four taps with usdot.
struct NeonI8mmInt8 : NeonInt8 {
  using Codes = uint8x16_t;
  static constexpr int kTaps = 4;

  static Codes load_codes(const uint8_t* p) { return vld1q_u8(p); }
  static Codes repeat_codes(const uint8_t* p) {
    uint32_t four;
    memcpy(&four, p, sizeof four);
    return vreinterpretq_u8_u32(vdupq_n_u32(four));
  }
  static Reg multiply_add(Reg s, Codes c, const int8_t* w) {
    return vusdotq_s32(s, c, vld1q_s8(w));
  }
};
#endif

}  // namespace
}  // namespace quibo
