// Four lanes of two taps: SSE2. Contract in int8_scalar.h.
#pragma once

#include <string.h>

#include "dsp/int8_scalar.h"
#include "dsp/simd_sse2.h"

namespace quibo {
namespace {

struct Sse2Int8 {
  using Float = Sse2F32;
  using Reg = __m128i;
  using Codes = __m128i;  // widened to 16 bits: a byte-pair multiply-add would saturate
  static constexpr int kLanes = 4;
  static constexpr int kTaps = 2;

  static Reg load(const int32_t* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }
  static void store(int32_t* p, Reg v) { _mm_storeu_si128(reinterpret_cast<__m128i*>(p), v); }
  static Reg splat(int32_t v) { return _mm_set1_epi32(v); }
  static Reg add(Reg a, Reg b) { return _mm_add_epi32(a, b); }
  static Codes load_codes(const uint8_t* p) { return _mm_unpacklo_epi8(load8(p), zero()); }
  static Codes repeat_codes(const uint8_t* p) {
    int16_t pair;
    memcpy(&pair, p, sizeof pair);
    return _mm_unpacklo_epi8(_mm_set1_epi16(pair), zero());
  }
  static Reg multiply_add(Reg s, Codes c, const int8_t* w) {
    const __m128i bytes = load8(w);
    return _mm_add_epi32(s, _mm_madd_epi16(c, _mm_srai_epi16(_mm_unpacklo_epi8(bytes, bytes), 8)));
  }
  static Reg pair_sums(Reg a, Reg b) {
    const __m128 x = _mm_castsi128_ps(a), y = _mm_castsi128_ps(b);
    return _mm_add_epi32(_mm_castps_si128(_mm_shuffle_ps(x, y, _MM_SHUFFLE(2, 0, 2, 0))),
                         _mm_castps_si128(_mm_shuffle_ps(x, y, _MM_SHUFFLE(3, 1, 3, 1))));
  }
  static Reg load_bytes(const uint8_t* p) {
    int32_t four;
    memcpy(&four, p, sizeof four);
    return _mm_unpacklo_epi16(_mm_unpacklo_epi8(_mm_cvtsi32_si128(four), zero()), zero());
  }
  static void store_bytes(uint8_t* p, Reg v) {
    const __m128i words = _mm_packs_epi32(v, v);
    const int32_t four = _mm_cvtsi128_si32(_mm_packus_epi16(words, words));
    memcpy(p, &four, sizeof four);
  }
  static Float::Reg to_float(Reg v) { return _mm_cvtepi32_ps(v); }
  static Reg round(Float::Reg x) {
    const __m128 sign = _mm_and_ps(x, _mm_set1_ps(-0.0f));
    return _mm_cvttps_epi32(_mm_add_ps(x, _mm_or_ps(sign, _mm_set1_ps(kBelowHalf))));
  }

 private:
  static __m128i zero() { return _mm_setzero_si128(); }
  static __m128i load8(const void* p) { return _mm_loadl_epi64(static_cast<const __m128i*>(p)); }
};

}  // namespace
}  // namespace quibo
