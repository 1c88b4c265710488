// The recurrent blocks of the two suppressors, one body for every instruction set.
//
//   y = x + affine(linear(ReLU(GRU(x)))), on maps of H channels x 32 positions, channel-major
//   r = sigmoid(Wr [x; h] + br)   z = sigmoid(Wz [x; h] + bz)
//   n = tanh(Wx x + bn1 + r * (Wh h + bn2))   h' = (1 - z) n + z h
//
// A time block keeps one state per position, a frequency block runs along the positions from a zero
// state. Order of sums: float_kernels.h; a sum over [x; h] is one sum, so its x half may be
// computed early, as four lanes that the h half then continues.
#pragma once

#include <string.h>

#include "dsp/conv_kernels.h"

namespace quibo {
namespace {

// Offsets of the rows of a dense map: tap j lies in row j.
template <int count, int stride>
struct RowTaps {
  int32_t at[count];
  constexpr RowTaps() : at() {
    for (int j = 0; j < count; ++j) at[j] = j * stride;
  }
};

template <int count, int stride>
constexpr RowTaps<count, stride> kRowTaps{};

// out[c*out_stride + r] = in[r*in_stride + c], rows and columns multiples of 4.
template <class V>
void transpose(float* out, int out_stride, const float* in, int in_stride, int rows, int columns) {
  using F = typename V::Four;
  for (int c = 0; c < columns; c += 4) {
    for (int r = 0; r < rows; r += 4) {
      const float* from = in + r * in_stride + c;
      typename F::Reg x0 = F::load(from), x1 = F::load(from + in_stride),
                      x2 = F::load(from + 2 * in_stride), x3 = F::load(from + 3 * in_stride);
      F::transpose(x0, x1, x2, x3);
      float* to = out + c * out_stride + r;
      F::store(to, x0);
      F::store(to + out_stride, x1);
      F::store(to + 2 * out_stride, x2);
      F::store(to + 3 * out_stride, x3);
    }
  }
}

// Gates of the noise suppressor: fast exponential, limits at 10.
template <class V>
struct FastGates {
  static typename V::Reg sigmoid(typename V::Reg x) { return quibo::sigmoid<V, FastExp>(x); }
  static typename V::Reg tanh(typename V::Reg x) { return quibo::tanh<V, FastExp>(x); }
};

// Gates of the echo suppressor: exact exponential, the tangent's limit at 8.
template <class V>
struct ExactGates {
  static typename V::Reg sigmoid(typename V::Reg x) { return quibo::sigmoid<V, ExactExp>(x); }
  static typename V::Reg tanh(typename V::Reg x) { return quibo::tanh<V, ExactExp>(x, 8.0f); }
};

// From the sums of the gates, biases included, to the next state.
template <class V, template <class> class Gates>
typename V::Reg next_state(typename V::Reg r_sum, typename V::Reg z_sum, typename V::Reg n_x,
                           typename V::Reg n_h, typename V::Reg h) {
  const typename V::Reg r = Gates<V>::sigmoid(r_sum), z = Gates<V>::sigmoid(z_sum);
  const typename V::Reg n = Gates<V>::tanh(V::add(n_x, V::mul(r, n_h)));
  return V::add(V::mul(V::sub(V::splat(1.0f), z), n), V::mul(z, h));
}

template <class V>
typename V::Reg relu(typename V::Reg x) {
  return V::where_greater(V::splat(0.0f), x, V::splat(0.0f), x);
}

// The linear layer, affine step and residual that close a block, on ReLU(h') of all steps.
template <class V, int H>
void gru_output(const GruJob& job, const float* rectified) {
  constexpr int N = kGruPositions;
  ConvJob linear = {};
  linear.weight = job.linear_weight;
  linear.row_stride = H;
  linear.bias = job.linear_bias;
  linear.scale = job.norm_weight;
  linear.shift = job.norm_bias;
  linear.tap_offset = kRowTaps<H, N>.at;
  linear.taps = H;
  linear.out_channels = H;
  linear.positions = N;
  linear.steps = job.steps;
  linear.input = rectified;
  linear.input_step = H * N;
  linear.output = job.output;
  linear.output_stride = N;
  linear.output_step = H * N;
  linear.residual = job.input;
  linear.residual_stride = N;
  linear.residual_step = H * N;
  conv<V>(linear);
}

// ---- Time block: positions in lanes ----------------------------------------------------------

template <class V, template <class> class Gates, int H>
void time_gru(const GruJob& job) {
  constexpr int N = kGruPositions, kMap = H * N;
  float* xh = job.scratch;  // x above h, each H x N
  float* h = xh + kMap;
  float* r = h + kMap;
  float* z = r + kMap;
  float* n_x = z + kMap;
  float* n_h = n_x + kMap;
  float* rectified = n_h + kMap;  // of all steps

  ConvJob gate = {};
  gate.tap_offset = kRowTaps<2 * H, N>.at;
  gate.out_channels = H;
  gate.positions = N;
  gate.steps = 1;
  gate.output_stride = N;
  auto product = [&gate](float* out, const float* weight, int row_stride, const float* bias,
                         const float* in, int taps) {
    gate.output = out;
    gate.weight = weight;
    gate.row_stride = row_stride;
    gate.bias = bias;
    gate.input = in;
    gate.taps = taps;
    conv<V>(gate);
  };

  transpose<V>(h, N, job.state, H, N, H);
  for (int s = 0; s < job.steps; ++s) {
    memcpy(xh, job.input + s * kMap, kMap * sizeof(float));
    product(r, job.weight_ir, 2 * H, job.bias_ir, xh, 2 * H);
    product(z, job.weight_iz, 2 * H, job.bias_iz, xh, 2 * H);
    product(n_x, job.weight_in_x, job.weight_in_stride, job.bias_in1, xh, H);
    product(n_h, job.weight_in_h, job.weight_in_stride, job.bias_in2, h, H);
    for (int i = 0; i < kMap; i += V::kWidth) {
      const typename V::Reg next = next_state<V, Gates>(
          V::load(r + i), V::load(z + i), V::load(n_x + i), V::load(n_h + i), V::load(h + i));
      V::store(h + i, next);
      V::store(rectified + s * kMap + i, relu<V>(next));
    }
  }
  transpose<V>(job.state, H, h, N, H, N);
  gru_output<V, H>(job, rectified);
}

// ---- Frequency block: rows in lanes ----------------------------------------------------------
// The recurrence has one position at a time, so the lanes hold rows, and the weights are transposed
// into scratch at each call: 1 % of the work, and no copy that could go stale.

template <class V, template <class> class Gates, int H, int kSteps>
struct FrequencyGru {
  using Reg = typename V::Reg;
  static constexpr int N = kGruPositions, kMap = H * N;
  static constexpr int kRows = 3 * H;  // r, z, n
  static constexpr int kBlock = 8;     // positions whose x half is computed ahead
  static constexpr int kLanes = 4 * kRows;

  float*
      columns;   // 2H x 3H: the weights of x_0.., then of h_0..; n has its x half, then its h half
  float* ahead;  // kSteps x kBlock x 4 lanes x 3H: sums of the x half
  float* rectified;  // kSteps x N x H

  static void transpose_weights(const GruJob& job, float* columns) {
    transpose<V>(columns, kRows, job.weight_ir, 2 * H, H, 2 * H);
    transpose<V>(columns + H, kRows, job.weight_iz, 2 * H, H, 2 * H);
    transpose<V>(columns + 2 * H, kRows, job.weight_in_x, job.weight_in_stride, H, H);
    transpose<V>(columns + H * kRows + 2 * H, kRows, job.weight_in_h, job.weight_in_stride, H, H);
  }

  // The x half for positions first .. first+kBlock-1.
  template <int P>
  void x_half(const float* input, int first, int row) {
    constexpr int C = kConvBlockChannels<V>;
    const float* weights[P];
    for (int p = 0; p < P; ++p) weights[p] = columns + row + p * V::kWidth;
    for (int s = 0; s < kSteps; ++s) {
      for (int g = 0; g < kBlock; g += C) {
        LaneSums<V, C, P> sums;
        sums.compute(input + s * kMap + first + g, 1, N, weights, kRowTaps<H, kRows>.at, H);
        for (int c = 0; c < C; ++c) {
          float* to = ahead + (s * kBlock + g + c) * kLanes + row;
          for (int l = 0; l < 4; ++l) {
            for (int p = 0; p < P; ++p)
              V::store(to + l * kRows + p * V::kWidth, sums.lane[l][c][p]);
          }
        }
      }
    }
  }

  void x_half(const float* input, int first) {
    constexpr int kRegisters = kRows / V::kWidth;
    int r = 0;
    for (; r + 4 <= kRegisters; r += 4) x_half<4>(input, first, r * V::kWidth);
    for (; r < kRegisters; r += 2) x_half<2>(input, first, r * V::kWidth);
  }

  // The h half of P registers of rows for one position of all steps: continues from `start` (null:
  // from zero) and folds into sums[s][row ..].
  template <int P>
  static void h_half(const float* columns, const float (&h)[kSteps][H], const float* start, int row,
                     float (&sums)[kSteps][kRows]) {
    Reg lane[4][kSteps][P];
    for (int l = 0; l < 4; ++l) {
      for (int s = 0; s < kSteps; ++s) {
        for (int p = 0; p < P; ++p) {
          lane[l][s][p] =
              start ? V::load(start + s * kBlock * kLanes + l * kRows + row + p * V::kWidth)
                    : V::splat(0.0f);
        }
      }
    }
    const float* w = columns + H * kRows + row;
    for (int j = 0; j < H; j += 4) {
      for (int l = 0; l < 4; ++l) {
        for (int p = 0; p < P; ++p) {
          const Reg weight = V::load(w + (j + l) * kRows + p * V::kWidth);
          for (int s = 0; s < kSteps; ++s) {
            lane[l][s][p] = V::add(lane[l][s][p], V::mul(weight, V::splat(h[s][j + l])));
          }
        }
      }
    }
    for (int s = 0; s < kSteps; ++s) {
      for (int p = 0; p < P; ++p) {
        V::store(&sums[s][row + p * V::kWidth], V::add(V::add(lane[0][s][p], lane[2][s][p]),
                                                       V::add(lane[1][s][p], lane[3][s][p])));
      }
    }
  }

  // One position: `x` the sums of its x half (of step 0; step s lies s*kBlock positions further).
  void position(const GruJob& job, const float* x, int g, float (&h)[kSteps][H]) {
    constexpr int P = V::kRegisters >= 32 && V::kWidth < 32 ? 2 : 1;
    float sums[kSteps][kRows];
    for (int row = 0; row < 2 * H; row += P * V::kWidth) h_half<P>(columns, h, x, row, sums);
    for (int row = 2 * H; row < kRows; row += P * V::kWidth) {
      h_half<P>(columns, h, nullptr, row, sums);
    }
    for (int i = 0; i < H; i += V::kWidth) {
      for (int s = 0; s < kSteps; ++s) {
        const float* n = x + s * kBlock * kLanes + 2 * H + i;
        const Reg n_x = V::add(V::add(V::load(n), V::load(n + 2 * kRows)),
                               V::add(V::load(n + kRows), V::load(n + 3 * kRows)));
        auto biased = [&](int gate, const float* bias) {
          return V::add(V::load(&sums[s][gate * H + i]), V::load(bias + i));
        };
        const Reg next = next_state<V, Gates>(biased(0, job.bias_ir), biased(1, job.bias_iz),
                                              V::add(n_x, V::load(job.bias_in1 + i)),
                                              biased(2, job.bias_in2), V::load(&h[s][i]));
        V::store(&h[s][i], next);
        V::store(rectified + (s * N + g) * H + i, relu<V>(next));
      }
    }
  }

  static void run(const GruJob& job) {
    FrequencyGru gru;
    gru.columns = job.scratch;
    gru.ahead = gru.columns + 2 * H * kRows;
    gru.rectified = gru.ahead + kSteps * kBlock * kLanes;
    float* channel_major = gru.ahead;  // free again by then
    transpose_weights(job, gru.columns);
    float h[kSteps][H] = {};
    for (int first = 0; first < N; first += kBlock) {
      gru.x_half(job.input, first);
      for (int g = 0; g < kBlock; ++g) gru.position(job, gru.ahead + g * kLanes, first + g, h);
    }
    if (job.state) memcpy(job.state, h[kSteps - 1], sizeof h[0]);
    for (int s = 0; s < kSteps; ++s) {
      transpose<V>(channel_major + s * kMap, N, gru.rectified + s * kMap, H, N, H);
    }
    gru_output<V, H>(job, channel_major);
  }
};

template <class V, template <class> class Gates, int H>
void frequency_gru(const GruJob& job) {
  if (job.steps == 2) {
    FrequencyGru<V, Gates, H, 2>::run(job);
  } else {
    FrequencyGru<V, Gates, H, 1>::run(job);
  }
}

}  // namespace
}  // namespace quibo
