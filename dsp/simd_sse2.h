// Four lanes: SSE2, the x86-64 baseline. Contract in simd_scalar.h.
#pragma once

#include <emmintrin.h>

#include "dsp/simd_scalar.h"

namespace quibo {
namespace {

struct Sse2F32 {
  using Four = Sse2F32;
  using Reg = __m128;
  static constexpr int kWidth = 4;
  static constexpr int kRegisters = 16;

  static Reg load(const float* p) { return _mm_loadu_ps(p); }
  static void store(float* p, Reg v) { _mm_storeu_ps(p, v); }
  static Reg splat(float v) { return _mm_set1_ps(v); }
  static Reg add(Reg a, Reg b) { return _mm_add_ps(a, b); }
  static Reg sub(Reg a, Reg b) { return _mm_sub_ps(a, b); }
  static Reg mul(Reg a, Reg b) { return _mm_mul_ps(a, b); }
  static Reg mul_add(Reg sum, Reg a, Reg b) { return add(sum, mul(a, b)); }
  static Reg div(Reg a, Reg b) { return _mm_div_ps(a, b); }
  static Reg sqrt(Reg a) { return _mm_sqrt_ps(a); }
  static Reg larger(Reg a, Reg b) { return _mm_max_ps(a, b); }
  static Reg smaller(Reg a, Reg b) { return _mm_min_ps(a, b); }
  static Reg where_greater(Reg a, Reg b, Reg x, Reg y) {
    const Reg greater = _mm_cmpgt_ps(a, b);
    return _mm_or_ps(_mm_and_ps(greater, x), _mm_andnot_ps(greater, y));
  }
  static Reg shift_to_exponent(Reg a) {
    return _mm_castsi128_ps(_mm_slli_epi32(_mm_castps_si128(a), 23));
  }
  static void transpose(Reg& a, Reg& b, Reg& c, Reg& d) { _MM_TRANSPOSE4_PS(a, b, c, d); }
  static float fold(Reg a) {
    const Reg pair = _mm_add_ps(a, _mm_movehl_ps(a, a));
    return _mm_cvtss_f32(_mm_add_ss(pair, _mm_shuffle_ps(pair, pair, _MM_SHUFFLE(1, 1, 1, 1))));
  }
  static void load_pairs(const float* p, Reg& re, Reg& im) {
    const Reg a = load(p), b = load(p + 4);
    re = _mm_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0));
    im = _mm_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1));
  }
  static void store_pairs(float* p, Reg re, Reg im) {
    store(p, _mm_unpacklo_ps(re, im));
    store(p + 4, _mm_unpackhi_ps(re, im));
  }
  static Reg reverse(Reg v) { return _mm_shuffle_ps(v, v, _MM_SHUFFLE(0, 1, 2, 3)); }
  template <int count>
  static Reg lead(Reg a, Reg b) {
    return count == 1 ? _mm_move_ss(b, a) : a;
  }
  static Reg load_repeat4(const float* p) { return _mm_set1_ps(*p); }
  static void store_columns(float* p, Reg y0, Reg y1, Reg y2, Reg y3) {
    _MM_TRANSPOSE4_PS(y0, y1, y2, y3);
    store_quads(p, y0, y1, y2, y3);
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
