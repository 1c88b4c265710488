// Eight lanes: AVX2. Contract in simd_scalar.h. Fused multiply-add is never used.
#pragma once

#include <immintrin.h>

#include "dsp/simd_sse2.h"

namespace quibo {
namespace {

struct Avx2F32 {
  using Four = Sse2F32;
  using Reg = __m256;
  static constexpr int kWidth = 8;
  static constexpr int kRegisters = 16;

  static Reg load(const float* p) { return _mm256_loadu_ps(p); }
  static void store(float* p, Reg v) { _mm256_storeu_ps(p, v); }
  static Reg splat(float v) { return _mm256_set1_ps(v); }
  static Reg add(Reg a, Reg b) { return _mm256_add_ps(a, b); }
  static Reg sub(Reg a, Reg b) { return _mm256_sub_ps(a, b); }
  static Reg mul(Reg a, Reg b) { return _mm256_mul_ps(a, b); }
  static Reg mul_add(Reg sum, Reg a, Reg b) { return add(sum, mul(a, b)); }
  static Reg div(Reg a, Reg b) { return _mm256_div_ps(a, b); }
  static Reg sqrt(Reg a) { return _mm256_sqrt_ps(a); }
  static Reg larger(Reg a, Reg b) { return _mm256_max_ps(a, b); }
  static Reg smaller(Reg a, Reg b) { return _mm256_min_ps(a, b); }
  static Reg where_greater(Reg a, Reg b, Reg x, Reg y) {
    return _mm256_blendv_ps(y, x, _mm256_cmp_ps(a, b, _CMP_GT_OQ));
  }
  static Reg shift_to_exponent(Reg a) {
    return _mm256_castsi256_ps(_mm256_slli_epi32(_mm256_castps_si256(a), 23));
  }
  static void load_pairs(const float* p, Reg& re, Reg& im) {
    // Gathering the 128-bit halves first lets one shuffle per output keep the lanes in order.
    const Reg a = load(p), b = load(p + 8);
    const Reg low = _mm256_permute2f128_ps(a, b, 0x20), high = _mm256_permute2f128_ps(a, b, 0x31);
    re = _mm256_shuffle_ps(low, high, _MM_SHUFFLE(2, 0, 2, 0));
    im = _mm256_shuffle_ps(low, high, _MM_SHUFFLE(3, 1, 3, 1));
  }
  static void store_pairs(float* p, Reg re, Reg im) {
    const Reg low = _mm256_unpacklo_ps(re, im), high = _mm256_unpackhi_ps(re, im);
    store(p, _mm256_permute2f128_ps(low, high, 0x20));
    store(p + 8, _mm256_permute2f128_ps(low, high, 0x31));
  }
  static Reg reverse(Reg v) {
    return _mm256_permutevar8x32_ps(v, _mm256_setr_epi32(7, 6, 5, 4, 3, 2, 1, 0));
  }
  template <int count>
  static Reg lead(Reg a, Reg b) {
    return _mm256_blend_ps(b, a, (1 << count) - 1);
  }
  static Reg load_repeat4(const float* p) {
    return _mm256_set_m128(_mm_set1_ps(p[1]), _mm_set1_ps(p[0]));
  }
  static void store_columns(float* p, Reg y0, Reg y1, Reg y2, Reg y3) {
    const Reg a = _mm256_unpacklo_ps(y0, y1), b = _mm256_unpackhi_ps(y0, y1);
    const Reg c = _mm256_unpacklo_ps(y2, y3), d = _mm256_unpackhi_ps(y2, y3);
    store_quads(p, _mm256_shuffle_ps(a, c, _MM_SHUFFLE(1, 0, 1, 0)),
                _mm256_shuffle_ps(a, c, _MM_SHUFFLE(3, 2, 3, 2)),
                _mm256_shuffle_ps(b, d, _MM_SHUFFLE(1, 0, 1, 0)),
                _mm256_shuffle_ps(b, d, _MM_SHUFFLE(3, 2, 3, 2)));
  }
  static void store_quads(float* p, Reg y0, Reg y1, Reg y2, Reg y3) {
    store(p, _mm256_permute2f128_ps(y0, y1, 0x20));
    store(p + 8, _mm256_permute2f128_ps(y2, y3, 0x20));
    store(p + 16, _mm256_permute2f128_ps(y0, y1, 0x31));
    store(p + 24, _mm256_permute2f128_ps(y2, y3, 0x31));
  }
};

}  // namespace
}  // namespace quibo
