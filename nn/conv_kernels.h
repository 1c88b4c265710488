// Convolutions over frequency and every other large product of the float networks, one body for
// every instruction set. Order of sums: float_kernels.h.
//
// Consecutive positions lie in the lanes of a register, so the four lanes of a sum are four
// registers, filled one after the other by four passes over every fourth tap: no shuffles, no patch
// matrix, and room to keep a block of channels and positions in registers. A weight is read once
// for all positions of all steps at hand. Where multiply-adds are fused, a sum has one lane.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "dsp/kernels.h"
#include "nn/float_kernels.h"
#include "nn/tap_loop.h"

namespace quibo {
namespace {

// Blocks of sums: as many as leave registers for the operands, and at least as many as hide the
// latency of the additions.
template <class V>
constexpr bool kManyRegisters = V::kRegisters >= 32;

inline void prefetch(uintptr_t address) {
  __builtin_prefetch(reinterpret_cast<const void*>(address));  // NOLINT(performance-no-int-to-ptr)
}

// The lanes of C x P sums: C rows of splatted values (a) times P registers (at x).
template <class V, int C, int P>
struct LaneSums {
  using Reg = typename V::Reg;
  static constexpr int kLanes = kSumLanes<V>;
  Reg lane[kLanes][C][P];

  void compute(const float* a, ptrdiff_t row_stride, ptrdiff_t tap_stride,
               const float* const (&x)[P], const int32_t* tap_offset, int taps) {
#pragma GCC unroll 1  // one pass at a time, so that its sums have the registers to themselves
    for (int l = 0; l < kLanes; ++l) pass(l, a, row_stride, tap_stride, x, tap_offset, taps);
  }

  // By a written loop, of registers that follow each other.
  template <class Taps>
  void compute(const Taps& taps, const float* x) {
    static_assert(C == Taps::kRows && P == TapLoop<V>::kRegisters, "its shape");
#pragma GCC unroll 1  // it is long
    for (int l = 0; l < kLanes; ++l) {
      taps.sum(reinterpret_cast<float*>(lane[l]), P * V::kWidth, x, l);
    }
  }

  [[gnu::always_inline]] void pass(int l, const float* a, ptrdiff_t row_stride,
                                   ptrdiff_t tap_stride, const float* const (&x)[P],
                                   const int32_t* tap_offset, int taps) {
    Reg sum[C][P];
    for (int c = 0; c < C; ++c) {
      for (int p = 0; p < P; ++p) sum[c][p] = V::splat(0.0f);
    }
    for (int j = l; j < taps; j += kLanes) {
      const ptrdiff_t offset = tap_offset[j];
      // Of a convolution the next block's weights, up to four rows: since the last frame other
      // networks' have taken their place in the caches. A row per pass spreads the requests. (In
      // the recurrent blocks' x half it asks for what is there already.) An address and not a
      // pointer, because behind the last block there is no table.
      prefetch(reinterpret_cast<uintptr_t>(a) +
               sizeof(float) * static_cast<size_t>((C + l % C) * row_stride + j));
      Reg value[P];
      for (int p = 0; p < P; ++p) value[p] = V::load(x[p] + offset);
      for (int c = 0; c < C; ++c) {
        const Reg factor = V::splat(a[c * row_stride + j * tap_stride]);
        for (int p = 0; p < P; ++p) sum[c][p] = V::mul_add(sum[c][p], value[p], factor);
      }
    }
    for (int c = 0; c < C; ++c) {
      for (int p = 0; p < P; ++p) lane[l][c][p] = sum[c][p];
    }
  }

  Reg fold(int c, int p) const {
    if constexpr (kLanes == 1) return lane[0][c][p];
    return V::add(V::add(lane[0][c][p], lane[2][c][p]), V::add(lane[1][c][p], lane[3][c][p]));
  }
};

// Where the registers of a block lie in a map: anywhere, or beside each other.
template <int P>
struct Places {
  ptrdiff_t at[P];
  ptrdiff_t operator[](int p) const { return at[p]; }
};

template <class V>
struct Beside {
  ptrdiff_t operator[](int p) const { return p * V::kWidth; }
};

// From the sums of channels channel .. channel+C-1 to their places behind `output`, of which those of the
// residual are behind `residual`.
template <class V, int C, int P, class At>
[[gnu::always_inline]] inline void conv_output(const ConvJob& job, const LaneSums<V, C, P>& sums,
                                               int channel, float* output, const At& output_at,
                                               const float* residual, const At& residual_at) {
  using Reg = typename V::Reg;
  output += channel * job.output_stride;
  if (residual) residual += channel * job.residual_stride;
  for (int k = channel; k < channel + C; ++k) {
    const Reg bias = unsigned_zero<V>(V::splat(job.bias[k]));
    Reg y[P];
    for (int p = 0; p < P; ++p) y[p] = V::add(sums.fold(k - channel, p), bias);
    if (job.prelu) {
      const Reg slope = V::splat(job.prelu[k]);
      for (int p = 0; p < P; ++p) y[p] = prelu<V>(y[p], slope);
    }
    if (job.scale) {
      const Reg scale = V::splat(job.scale[k]), shift = V::splat(job.shift[k]);
      for (int p = 0; p < P; ++p) y[p] = V::mul_add(shift, scale, y[p]);
    }
    if (residual) {
      for (int p = 0; p < P; ++p) y[p] = V::add(y[p], V::load(residual + residual_at[p]));
      residual += job.residual_stride;
    }
    for (int p = 0; p < P; ++p) V::store(output + output_at[p], y[p]);
    output += job.output_stride;
  }
}

template <class V, int C, int P>
void conv_block(const ConvJob& job, const float* weight, int channel, int first_register) {
  const int per_step = job.positions / V::kWidth;
  const float* x[P];
  Places<P> output_at, residual_at;
  for (int p = 0; p < P; ++p) {
    const int step = (first_register + p) / per_step;
    const int position = (first_register + p) % per_step * V::kWidth;
    x[p] = job.input + step * job.input_step + position;
    output_at.at[p] = step * job.output_step + position;
    residual_at.at[p] = step * job.residual_step + position;
  }
  LaneSums<V, C, P> sums;
  sums.compute(weight, job.row_stride, 1, x, job.tap_offset, job.taps);
  conv_output<V>(job, sums, channel, job.output, output_at, job.residual, residual_at);
}

template <class V, int C, int P>
void conv_blocks(const ConvJob& job, int registers) {
  for (int channel = 0; channel < job.out_channels; channel += C) {
    const float* weight = job.weight + static_cast<ptrdiff_t>(channel) * job.row_stride;
    for (int r = 0; r < registers; r += P) conv_block<V, C, P>(job, weight, channel, r);
  }
}

// The same with a written loop, which wants the weights of its rows beside each other: they are
// copied once for all positions.
template <class V>
void conv_with_tap_loop(const ConvJob& job) {
  constexpr int P = TapLoop<V>::kRegisters;
  using Taps = WrittenTaps<V, kConvMaxTaps>;
  static_assert(32 % (P * V::kWidth) == 0, "positions come in multiples of 32");
  Taps taps;
  taps.set_places(job.tap_offset, job.taps);
  for (int channel = 0; channel < job.out_channels; channel += Taps::kRows) {
    taps.set_rows(job.weight + static_cast<ptrdiff_t>(channel) * job.row_stride, job.row_stride);
    for (int s = 0; s < job.steps; ++s) {
      for (int position = 0; position < job.positions; position += P * V::kWidth) {
        LaneSums<V, Taps::kRows, P> sums;
        sums.compute(taps, job.input + s * job.input_step + position);
        const float* residual =
            job.residual ? job.residual + s * job.residual_step + position : nullptr;
        conv_output<V>(job, sums, channel, job.output + s * job.output_step + position, Beside<V>(),
                       residual, Beside<V>());
      }
    }
  }
}

template <class V>
void conv(const ConvJob& job) {
  const int registers = job.steps * job.positions / V::kWidth;
  if constexpr (TapLoop<V>::kWritten) {
    conv_with_tap_loop<V>(job);
  } else if constexpr (!kManyRegisters<V>) {
    static_assert(V::kWidth <= 8, "positions come in multiples of 32, so registers in fours");
    conv_blocks<V, 2, 4>(job, registers);
  } else if (registers % 4 == 0) {
    conv_blocks<V, 4, 4>(job, registers);
  } else if (job.out_channels % 8 == 0) {
    conv_blocks<V, 8, 2>(job, registers);  // one step of 32 positions in registers of 16
  } else {
    conv_blocks<V, 4, 2>(job, registers);
  }
}

// 512 values in 64 groups of 8, each mapped by a matrix of its own: weight is 64 x 8 x 8, bias 512.
template <class V>
void bin_groups(float* out, const float* weight, const float* bias, const float* in) {
  using F = typename V::Four;
  for (int k = 0; k < 512; k += 8) {
    const typename F::Reg low = F::load(in + k), high = F::load(in + k + 4);
    for (int r = k; r < k + 8; ++r) {
      const typename F::Reg zero = F::splat(0.0f);
      const typename F::Reg sum = F::mul_add(zero, F::load(weight + 8 * r), low);
      out[r] = F::fold(F::mul_add(sum, F::load(weight + 8 * r + 4), high)) + bias[r];
    }
  }
}

// Columns 0, 2, 4, ... and 1, 3, 5, ... of a row, so that a convolution of stride 2 reads
// consecutive values.
template <class V>
void split_columns(float* even, float* odd, const float* row, int pairs) {
  for_each_lane<V>(pairs, [=](auto v, int i) {
    using W = decltype(v);
    typename W::Reg a, b;
    W::load_pairs(row + 2 * i, a, b);
    W::store(even + i, a);
    W::store(odd + i, b);
  });
}

// The inverse: two rows of n values into one of 2n.
template <class V>
void join_columns(float* row, const float* even, const float* odd, int pairs) {
  for_each_lane<V>(pairs, [=](auto v, int i) {
    using W = decltype(v);
    W::store_pairs(row + 2 * i, W::load(even + i), W::load(odd + i));
  });
}

}  // namespace
}  // namespace quibo
