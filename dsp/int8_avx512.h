// Sixteen lanes of two taps: AVX-512BW. Contract in int8_scalar.h.
#pragma once

#include <string.h>

#include "dsp/int8_scalar.h"
#include "dsp/simd_avx512.h"

namespace quibo {
namespace {

struct Avx512Int8 {
  using Float = Avx512F32;
  using Reg = __m512i;
  using Codes = __m512i;  // widened to 16 bits: a byte-pair multiply-add would saturate
  static constexpr int kLanes = 16;
  static constexpr int kTaps = 2;

  static Reg load(const int32_t* p) { return _mm512_loadu_si512(p); }
  static void store(int32_t* p, Reg v) { _mm512_storeu_si512(p, v); }
  static Reg splat(int32_t v) { return _mm512_set1_epi32(v); }
  static Reg add(Reg a, Reg b) { return _mm512_add_epi32(a, b); }
  static Codes load_codes(const uint8_t* p) { return _mm512_cvtepu8_epi16(load32(p)); }
  static Codes repeat_codes(const uint8_t* p) {
    int16_t pair;
    memcpy(&pair, p, sizeof pair);
    return _mm512_cvtepu8_epi16(_mm256_set1_epi16(pair));
  }
  static Reg multiply_add(Reg s, Codes c, const int8_t* w) {
    return _mm512_add_epi32(s, _mm512_madd_epi16(c, _mm512_cvtepi8_epi16(load32(w))));
  }
  static Reg pair_sums(Reg a, Reg b) {
    const __m512i even =
        _mm512_setr_epi32(0, 2, 4, 6, 8, 10, 12, 14, 16, 18, 20, 22, 24, 26, 28, 30);
    const __m512i odd = _mm512_add_epi32(even, _mm512_set1_epi32(1));
    return _mm512_add_epi32(_mm512_permutex2var_epi32(a, even, b),
                            _mm512_permutex2var_epi32(a, odd, b));
  }
  static Reg load_bytes(const uint8_t* p) {
    return _mm512_cvtepu8_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
  }
  static void store_bytes(uint8_t* p, Reg v) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(p), _mm512_cvtepi32_epi8(v));
  }
  static Float::Reg to_float(Reg v) { return _mm512_cvtepi32_ps(v); }
  static Reg round(Float::Reg x) {
    const __m512i sign = _mm512_and_si512(_mm512_castps_si512(x), _mm512_set1_epi32(INT32_MIN));
    const __m512i half = _mm512_castps_si512(_mm512_set1_ps(kBelowHalf));
    return _mm512_cvttps_epi32(_mm512_add_ps(x, _mm512_castsi512_ps(_mm512_or_si512(sign, half))));
  }

 private:
  static __m256i load32(const void* p) {
    return _mm256_loadu_si256(static_cast<const __m256i*>(p));
  }
};

#if defined(__AVX512VNNI__)
// Sixteen lanes of four taps: the byte multiply-add that sums at 32 bits, without saturation.
struct Avx512VnniInt8 : Avx512Int8 {
  static constexpr int kTaps = 4;

  static Codes load_codes(const uint8_t* p) { return _mm512_loadu_si512(p); }
  static Codes repeat_codes(const uint8_t* p) {
    int32_t four;
    memcpy(&four, p, sizeof four);
    return _mm512_set1_epi32(four);
  }
  static Reg multiply_add(Reg s, Codes c, const int8_t* w) {
    return _mm512_dpbusd_epi32(s, c, _mm512_loadu_si512(w));
  }
};
#endif

}  // namespace
}  // namespace quibo
