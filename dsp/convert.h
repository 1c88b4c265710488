// Between int16 samples and floats of full scale 1.0: one rule for the whole library.
#pragma once

#include <stdint.h>

namespace quibo {

constexpr float kFullScale = 32768.0f;

inline float int16_to_float(int16_t x) {
  return static_cast<float>(x) * (1.0f / kFullScale);
}

// Truncates toward zero to 32 bits, saturating there (a NaN gives 0), and keeps the low 16 bits.
// There is no clamp to the int16 range on purpose: 1.0 becomes -32768. Callers that must not wrap
// limit their signal first.
inline int16_t float_to_int16(float x) {
  const float scaled = x * kFullScale;
  int32_t wide = 0;
  if (scaled >= 2147483648.0f) {
    wide = INT32_MAX;
  } else if (scaled < -2147483648.0f) {
    wide = INT32_MIN;
  } else if (scaled == scaled) {
    wide = static_cast<int32_t>(scaled);
  }
  return static_cast<int16_t>(static_cast<uint16_t>(static_cast<uint32_t>(wide)));
}

}  // namespace quibo
