// The quantised layers' inner loops, one body for every instruction set. uint8 codes times int8
// weights, summed exactly at 32 bits. Contracts in Int8Kernels (dsp/kernels.h).
#pragma once

#include <string.h>

#include "dsp/int8_scalar.h"
#include "dsp/kernels.h"

namespace quibo {
namespace {

// Calls body(i) for blocks of kLanes that cover 0..count-1. Where count is not a multiple, the last
// block overlaps the one before it and computes the same values again.
template <class V, class Body>
void for_lane_blocks(int count, const Body& body) {
  int i = 0;
  for (; i + V::kLanes <= count; i += V::kLanes) body(i);
  if (i < count) body(count - V::kLanes);
}

// Adds n registers' lanes up in groups of n: lane i of the result is the sum of lanes n*i ..
// n*i+n-1 of all registers in a row. For n = kLanes, the sum over register i.
template <class V, int n>
typename V::Reg fold(typename V::Reg* s) {
  if constexpr (n > 1) {
    for (int i = 0; i < n / 2; ++i) s[i] = V::pair_sums(s[2 * i], s[2 * i + 1]);
    return fold<V, n / 2>(s);
  }
  return s[0];
}

// One vector: codes along the register, kLanes rows at a time, read where they stand.
template <class V>
void int8_mat_vec(const uint8_t* in, const int8_t* weight, const int32_t* bias, int rows, int depth,
                  int32_t* out) {
  constexpr int kStep = V::kLanes * V::kTaps;
  const int blocks = depth / kStep, rest = depth % kStep;
  typename V::Codes codes[kInt8MaxDepth / kStep];
  for (int b = 0; b < blocks; ++b) codes[b] = V::load_codes(in + b * kStep);
  // The last kStep codes of the vector, those already covered set to 0: the weights beside them are
  // the row's own, so nothing beyond the table is read.
  uint8_t tail[kStep] = {};
  memcpy(tail + kStep - rest, in + depth - rest, static_cast<size_t>(rest));
  const typename V::Codes tail_codes = V::load_codes(tail);

  for_lane_blocks<V>(rows, [&](int r) {
    const int8_t* w = weight + r * depth;
    typename V::Reg s[V::kLanes];
#pragma GCC unroll 16
    for (int j = 0; j < V::kLanes; ++j) s[j] = V::splat(0);
    for (int b = 0; b < blocks; ++b) {
#pragma GCC unroll 16
      for (int j = 0; j < V::kLanes; ++j) {
        s[j] = V::multiply_add(s[j], codes[b], w + j * depth + b * kStep);
      }
    }
    if (rest) {
#pragma GCC unroll 16
      for (int j = 0; j < V::kLanes; ++j) {
        s[j] = V::multiply_add(s[j], tail_codes, w + j * depth + depth - kStep);
      }
    }
    V::store(out + r, V::add(fold<V, V::kLanes>(s), V::load(bias + r)));
  });
}

// Many short vectors: rows along the register, each group of kTaps codes repeated in every lane.
// The weights are regrouped first, [depth / kTaps][rows][kTaps]; they are few.
template <class V>
void int8_mat_mul(const uint8_t* in, int positions, const int8_t* weight, const int32_t* bias,
                  int rows, int depth, int32_t* out) {
  int8_t grouped[kInt8MaxSmallWeights];
  const int groups = depth / V::kTaps;
  int8_t* to = grouped;
  for (int g = 0; g < groups; ++g) {
    for (int r = 0; r < rows; ++r, to += V::kTaps) {
      memcpy(to, weight + r * depth + g * V::kTaps, V::kTaps);
    }
  }
  // Three positions share each load of the weights.
  for (int r = 0; r < rows; r += V::kLanes) {
    const typename V::Reg start = V::load(bias + r);
    for (int p = 0; p < positions; p += 3) {
      const uint8_t* codes = in + p * depth;
      typename V::Reg s0 = V::splat(0), s1 = s0, s2 = s0;
      for (int k = 0; k < depth; k += V::kTaps) {
        const int8_t* w = grouped + k * rows + r * V::kTaps;
        s0 = V::multiply_add(s0, V::repeat_codes(codes + k), w);
        s1 = V::multiply_add(s1, V::repeat_codes(codes + depth + k), w);
        s2 = V::multiply_add(s2, V::repeat_codes(codes + 2 * depth + k), w);
      }
      V::store(out + p * rows + r, V::add(s0, start));
      V::store(out + (p + 1) * rows + r, V::add(s1, start));
      V::store(out + (p + 2) * rows + r, V::add(s2, start));
    }
  }
}

// One kernel of eight taps per channel: the codes of consecutive channels along the register.
template <class V>
void int8_per_channel(const uint8_t* in, const int8_t* weight, const int32_t* bias, int channels,
                      int32_t* out) {
  constexpr int kRegisters = kInt8ChannelTaps / V::kTaps;
  for_lane_blocks<V>(channels, [&](int c) {
    typename V::Reg s[kRegisters];
    for (int i = 0; i < kRegisters; ++i) {
      const int at = c * kInt8ChannelTaps + i * V::kLanes * V::kTaps;
      s[i] = V::multiply_add(V::splat(0), V::load_codes(in + at), weight + at);
    }
    V::store(out + c, V::add(fold<V, kRegisters>(s), V::load(bias + c)));
  });
}

// Limits x to low..high, a NaN to low.
template <class F>
typename F::Reg limit(typename F::Reg x, float low, float high) {
  return F::smaller(F::larger(x, F::splat(low)), F::splat(high));
}

template <class V>
void int8_requantise(const int32_t* sums, int count, const Requantiser& q, uint8_t* out) {
  using F = typename V::Float;
  for_lane_blocks<V>(count, [&](int i) {
    typename F::Reg x = F::mul(V::to_float(V::load(sums + i)), F::splat(q.multiplier));
    x = limit<F>(F::add(x, F::splat(q.offset)), q.low, q.high);
    V::store_bytes(out + i, V::add(V::round(x), V::splat(q.zero_point)));
  });
}

// -x, wrapping as the sums do.
inline int32_t minus(int32_t x) {
  return static_cast<int32_t>(0u - static_cast<uint32_t>(x));
}

template <class V>
void int8_add_rescaled(const uint8_t* first, int32_t first_zero, const uint8_t* second,
                       int32_t second_zero, float multiplier, int count, int32_t* out) {
  using F = typename V::Float;
  constexpr float kLimit = 1 << 30;  // keeps the conversion and the sum within 32 bits
  const typename V::Reg a = V::splat(minus(first_zero)), b = V::splat(minus(second_zero));
  for_lane_blocks<V>(count, [&](int i) {
    const typename F::Reg x = V::to_float(V::add(V::load_bytes(second + i), b));
    const typename V::Reg rescaled =
        V::round(limit<F>(F::mul(x, F::splat(multiplier)), -kLimit, kLimit));
    V::store(out + i, V::add(V::add(V::load_bytes(first + i), a), rescaled));
  });
}

}  // namespace
}  // namespace quibo
