// Between floats of full scale 1.0 and int16.
#pragma once

#include <cmath>
#include <cstdint>

namespace quibo::recordings {

inline float to_float(int16_t x) {
  return static_cast<float>(x) * (1.0f / 32768.0f);
}

// To the nearest, limited to the range; *clipped counts what was beyond it. Exact for what was int16.
inline int16_t to_int16(float x, int64_t* clipped) {
  const float scaled = std::nearbyint(x * 32768.0f);
  if (scaled > 32767.0f || scaled < -32768.0f) {
    ++*clipped;
    return scaled > 0 ? 32767 : -32768;
  }
  return static_cast<int16_t>(scaled);
}

// Decibels of a mean power, 0 dBFS = a constant at full scale, no less than -120.
inline double power_db(double power) {
  constexpr double kFloor = 1e-12;
  return 10.0 * std::log10(power > kFloor ? power : kFloor);
}

}  // namespace quibo::recordings
