// Sixteen lanes: AVX-512F. Contract in simd_scalar.h. Fused multiply-add is never used.
#pragma once

#include <immintrin.h>

#include "dsp/simd_sse2.h"

namespace quibo {
namespace {

struct Avx512F32 {
  using Four = Sse2F32;
  using Reg = __m512;
  static constexpr int kWidth = 16;
  static constexpr int kRegisters = 32;

  static Reg load(const float* p) { return _mm512_loadu_ps(p); }
  static void store(float* p, Reg v) { _mm512_storeu_ps(p, v); }
  static Reg splat(float v) { return _mm512_set1_ps(v); }
  static Reg add(Reg a, Reg b) { return _mm512_add_ps(a, b); }
  static Reg sub(Reg a, Reg b) { return _mm512_sub_ps(a, b); }
  static Reg mul(Reg a, Reg b) { return _mm512_mul_ps(a, b); }
  static Reg mul_add(Reg sum, Reg a, Reg b) { return add(sum, mul(a, b)); }
  static Reg div(Reg a, Reg b) { return _mm512_div_ps(a, b); }
  static Reg sqrt(Reg a) { return _mm512_sqrt_ps(a); }
  static Reg larger(Reg a, Reg b) { return _mm512_max_ps(a, b); }
  static Reg smaller(Reg a, Reg b) { return _mm512_min_ps(a, b); }
  static Reg where_greater(Reg a, Reg b, Reg x, Reg y) {
    return _mm512_mask_blend_ps(_mm512_cmp_ps_mask(a, b, _CMP_GT_OQ), y, x);
  }
  static Reg shift_to_exponent(Reg a) {
    return _mm512_castsi512_ps(_mm512_slli_epi32(_mm512_castps_si512(a), 23));
  }
  static void load_pairs(const float* p, Reg& re, Reg& im) {
    const Reg a = load(p), b = load(p + 16);
    const __m512i even =
        _mm512_setr_epi32(0, 2, 4, 6, 8, 10, 12, 14, 16, 18, 20, 22, 24, 26, 28, 30);
    re = _mm512_permutex2var_ps(a, even, b);
    im = _mm512_permutex2var_ps(a, _mm512_add_epi32(even, _mm512_set1_epi32(1)), b);
  }
  static void store_pairs(float* p, Reg re, Reg im) {
    const __m512i first = _mm512_setr_epi32(0, 16, 1, 17, 2, 18, 3, 19, 4, 20, 5, 21, 6, 22, 7, 23);
    store(p, _mm512_permutex2var_ps(re, first, im));
    store(p + 16, _mm512_permutex2var_ps(re, _mm512_add_epi32(first, _mm512_set1_epi32(8)), im));
  }
  static Reg reverse(Reg v) {
    return _mm512_permutexvar_ps(
        _mm512_setr_epi32(15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0), v);
  }
  template <int count>
  static Reg lead(Reg a, Reg b) {
    return _mm512_mask_blend_ps((1 << count) - 1, b, a);
  }
  static Reg load_repeat4(const float* p) {
    const __m512i each = _mm512_setr_epi32(0, 0, 0, 0, 1, 1, 1, 1, 2, 2, 2, 2, 3, 3, 3, 3);
    return _mm512_permutexvar_ps(each, _mm512_castps128_ps512(_mm_loadu_ps(p)));
  }
  static void store_columns(float* p, Reg y0, Reg y1, Reg y2, Reg y3) {
    const Reg a = _mm512_unpacklo_ps(y0, y1), b = _mm512_unpackhi_ps(y0, y1);
    const Reg c = _mm512_unpacklo_ps(y2, y3), d = _mm512_unpackhi_ps(y2, y3);
    store_quads(p, _mm512_shuffle_ps(a, c, _MM_SHUFFLE(1, 0, 1, 0)),
                _mm512_shuffle_ps(a, c, _MM_SHUFFLE(3, 2, 3, 2)),
                _mm512_shuffle_ps(b, d, _MM_SHUFFLE(1, 0, 1, 0)),
                _mm512_shuffle_ps(b, d, _MM_SHUFFLE(3, 2, 3, 2)));
  }
  static void store_quads(float* p, Reg y0, Reg y1, Reg y2, Reg y3) {
    // A 4 x 4 transpose of 128-bit quarters.
    const Reg a = _mm512_shuffle_f32x4(y0, y1, _MM_SHUFFLE(1, 0, 1, 0));
    const Reg b = _mm512_shuffle_f32x4(y2, y3, _MM_SHUFFLE(1, 0, 1, 0));
    const Reg c = _mm512_shuffle_f32x4(y0, y1, _MM_SHUFFLE(3, 2, 3, 2));
    const Reg d = _mm512_shuffle_f32x4(y2, y3, _MM_SHUFFLE(3, 2, 3, 2));
    store(p, _mm512_shuffle_f32x4(a, b, _MM_SHUFFLE(2, 0, 2, 0)));
    store(p + 16, _mm512_shuffle_f32x4(a, b, _MM_SHUFFLE(3, 1, 3, 1)));
    store(p + 32, _mm512_shuffle_f32x4(c, d, _MM_SHUFFLE(2, 0, 2, 0)));
    store(p + 48, _mm512_shuffle_f32x4(c, d, _MM_SHUFFLE(3, 1, 3, 1)));
  }
};

}  // namespace
}  // namespace quibo
