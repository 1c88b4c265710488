#include "wakeup/quantised.h"

#include "dsp/kernels.h"

namespace quibo::wakeup {
namespace {

float whole_number(int32_t zero_point) {
  constexpr int32_t kSpan = 1 << 23;
  return static_cast<float>(zero_point < -kSpan ? -kSpan : zero_point > kSpan ? kSpan : zero_point);
}

}  // namespace

void m1_mat_mul_mat_int8(const uint8_t* patches, int positions, const int8_t* weight,
                         const int32_t* bias, int rows, int depth, int32_t* sums) {
  const Int8Kernels& run = kernels().int8;
  if (positions == 1) {
    run.mat_vec(patches, weight, bias, rows, depth, sums);
  } else {
    run.mat_mul(patches, positions, weight, bias, rows, depth, sums);
  }
}

void m2_vec_mul_mat_int8(const uint8_t* patches, const int8_t* weight, const int32_t* bias,
                         int channels, int taps, int32_t* sums) {
  if (taps == kInt8ChannelTaps) {
    kernels().int8.per_channel(patches, weight, bias, channels, sums);
    return;
  }
  for (int c = 0; c < channels; ++c) {
    const int32_t sum = arr_mul_arr_unchar(patches + c * taps, weight + c * taps, taps);
    sums[c] = static_cast<int32_t>(static_cast<uint32_t>(sum) + static_cast<uint32_t>(bias[c]));
  }
}

void layer_normalize(const int32_t* sums, int count, int32_t M0, int32_t M1, int32_t zero_point,
                     uint8_t* codes) {
  // Limiting before rounding gives the same codes, the limits being whole numbers.
  const float zero = whole_number(zero_point);
  const Requantiser q = {multiplier(M0, M1), 0.0f, -zero, 255.0f - zero,
                         static_cast<int32_t>(zero)};
  kernels().int8.requantise(sums, count, q, codes);
}

void gate_normalize(const int32_t* sums, int count, int32_t M0, int32_t M1, int32_t zero_point,
                    uint8_t* codes) {
  const Requantiser q = {multiplier(M0, M1), static_cast<float>(zero_point), 0.0f, 255.0f, 0};
  kernels().int8.requantise(sums, count, q, codes);
}

void softmax(float* x, int n) {
  float largest = -1e9f;
  for (int i = 0; i < n; ++i) largest = x[i] > largest ? x[i] : largest;
  float sum = 0.0f;
  for (int i = 0; i < n; ++i) {
    x[i] = elementary::exp(x[i] - largest);
    sum += x[i];
  }
  for (int i = 0; i < n; ++i) x[i] /= sum;
}

}  // namespace quibo::wakeup
