// Arithmetic that the quantised layers share: products, requantisation, activations.
#pragma once

#include <stdint.h>

#include "dsp/elementary.h"
#include "dsp/rounding.h"
#include "wakeup/ChineseConv.h"

namespace quibo::wakeup {

// Dot product of n codes and n weights.
inline int32_t arr_mul_arr_unchar(const uint8_t* codes, const int8_t* weight, int n) {
  int32_t sum = 0;
  for (int i = 0; i < n; ++i) sum += codes[i] * weight[i];
  return sum;
}

// Every row of patches [positions][depth] against every row of weight [rows][depth], plus bias:
// sums [positions][rows].
void m1_mat_mul_mat_int8(const uint8_t* patches, int positions, const int8_t* weight,
                         const int32_t* bias, int rows, int depth, int32_t* sums);

// Each channel's patch with its own kernel: patches and weight [channels][taps], sums [channels].
void m2_vec_mul_mat_int8(const uint8_t* patches, const int8_t* weight, const int32_t* bias,
                         int channels, int taps, int32_t* sums);

// A pair's value, in single precision.
inline float multiplier(int32_t M0, int32_t M1) {
  return static_cast<float>(M0) * elementary::power_of_two(-int64_t{M1});
}

// Sums to codes: scaled, rounded with halves away from zero, zero point added, limited to 0..255.
// A zero point acts as one within +-2^23, where single precision holds its distance from any code
// exactly; a NaN gives 0.
void layer_normalize(const int32_t* sums, int count, int32_t M0, int32_t M1, int32_t zero_point,
                     uint8_t* codes);

// The same for the recurrent unit's gates, which add the zero point before they round.
void gate_normalize(const int32_t* sums, int count, int32_t M0, int32_t M1, int32_t zero_point,
                    uint8_t* codes);

// The nearest code, halves upward; a NaN gives 0.
inline uint8_t clamp_round(float x) {
  x = x > 0.0f ? x : 0.0f;
  x = x < 255.0f ? x : 255.0f;
  return static_cast<uint8_t>(static_cast<int32_t>(x + kBelowHalf));
}

inline float dequantise(uint8_t code, int32_t zero_point, float scale) {
  const uint32_t difference = code - static_cast<uint32_t>(zero_point);
  return static_cast<float>(static_cast<int32_t>(difference)) * scale;
}

inline float fast_sigmoid(float x) {
  if (x > 10.0f) return 1.0f;
  if (x < -10.0f) return 0.0f;
  return 1.0f / (1.0f + elementary::exp(-x));
}

inline float fast_tanh(float x) {
  if (x > 8.0f) return 1.0f;
  if (x < -8.0f) return -1.0f;
  const float e = elementary::exp(2.0f * x);
  return (e - 1.0f) / (e + 1.0f);
}

// In place, over n values.
void softmax(float* x, int n);

}  // namespace quibo::wakeup
