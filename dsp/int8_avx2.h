// Eight lanes of two taps: AVX2. Contract in int8_scalar.h.
#pragma once

#include <string.h>

#include "dsp/int8_scalar.h"
#include "dsp/simd_avx2.h"

namespace quibo {
namespace {

struct Avx2Int8 {
  using Float = Avx2F32;
  using Reg = __m256i;
  using Codes = __m256i;  // widened to 16 bits: a byte-pair multiply-add would saturate
  static constexpr int kLanes = 8;
  static constexpr int kTaps = 2;

  static Reg load(const int32_t* p) {
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
  }
  static void store(int32_t* p, Reg v) { _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), v); }
  static Reg splat(int32_t v) { return _mm256_set1_epi32(v); }
  static Reg add(Reg a, Reg b) { return _mm256_add_epi32(a, b); }
  static Codes load_codes(const uint8_t* p) { return _mm256_cvtepu8_epi16(load16(p)); }
  static Codes repeat_codes(const uint8_t* p) {
    int16_t pair;
    memcpy(&pair, p, sizeof pair);
    return _mm256_cvtepu8_epi16(_mm_set1_epi16(pair));
  }
  static Reg multiply_add(Reg s, Codes c, const int8_t* w) {
    return _mm256_add_epi32(s, _mm256_madd_epi16(c, _mm256_cvtepi8_epi16(load16(w))));
  }
  static Reg pair_sums(Reg a, Reg b) {
    return _mm256_permute4x64_epi64(_mm256_hadd_epi32(a, b), _MM_SHUFFLE(3, 1, 2, 0));
  }
  static Reg load_bytes(const uint8_t* p) {
    return _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)));
  }
  static void store_bytes(uint8_t* p, Reg v) {
    const __m128i words =
        _mm_packs_epi32(_mm256_castsi256_si128(v), _mm256_extracti128_si256(v, 1));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(p), _mm_packus_epi16(words, words));
  }
  static Float::Reg to_float(Reg v) { return _mm256_cvtepi32_ps(v); }
  static Reg round(Float::Reg x) {
    const __m256 sign = _mm256_and_ps(x, _mm256_set1_ps(-0.0f));
    return _mm256_cvttps_epi32(_mm256_add_ps(x, _mm256_or_ps(sign, _mm256_set1_ps(kBelowHalf))));
  }

 private:
  static __m128i load16(const void* p) { return _mm_loadu_si128(static_cast<const __m128i*>(p)); }
};

#if defined(__AVXVNNI__)
// Eight lanes of four taps: the byte multiply-add that sums at 32 bits, without saturation.
struct AvxVnniInt8 : Avx2Int8 {
  static constexpr int kTaps = 4;

  static Codes load_codes(const uint8_t* p) {
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
  }
  static Codes repeat_codes(const uint8_t* p) {
    int32_t four;
    memcpy(&four, p, sizeof four);
    return _mm256_set1_epi32(four);
  }
  static Reg multiply_add(Reg s, Codes c, const int8_t* w) {
    return _mm256_dpbusd_avx_epi32(s, c, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(w)));
  }
};
#endif

}  // namespace
}  // namespace quibo
