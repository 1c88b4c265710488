// Between int16 samples and floats of full scale 1.0: one rule for the whole library.
#pragma once

#include <stdint.h>

namespace quibo {

constexpr float kFullScale = 32768.0f;

inline float int16_to_float(int16_t x) {
  return static_cast<float>(x) * (1.0f / kFullScale);
}

// Truncates toward zero, saturating at the 32-bit limits; a NaN gives 0.
inline int32_t truncate_to_int32(float x) {
  if (x >= 2147483648.0f) return INT32_MAX;
  if (x < -2147483648.0f) return INT32_MIN;
  return x == x ? static_cast<int32_t>(x) : 0;
}

// Truncates to 32 bits and keeps the low 16. There is no clamp to the int16 range on purpose: 1.0
// becomes -32768. Callers that must not wrap limit their signal first.
inline int16_t float_to_int16(float x) {
  const int32_t wide = truncate_to_int32(x * kFullScale);
  return static_cast<int16_t>(static_cast<uint16_t>(static_cast<uint32_t>(wide)));
}

}  // namespace quibo
