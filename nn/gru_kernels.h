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

#include "nn/conv_kernels.h"

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
  const typename V::Reg n = Gates<V>::tanh(V::mul_add(n_x, r, n_h));
  return V::mul_add(V::mul(V::sub(V::splat(1.0f), z), n), z, h);
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
// into scratch at each call: 1 % of a network's time, and no copy that could go stale. Two steps in
// one call share every weight and hide each other's latency.

template <class V>
constexpr int stripe_registers() {
  if constexpr (TapLoop<V>::kWritten) return TapLoop<V>::kRegisters;
  // As many sums as hide the latency of the additions, by two steps and two lanes or one.
  return kManyRegisters<V> ? 6 : V::kWidth == 1 || kSumLanes<V> == 1 ? 4 : 2;
}

template <class V, template <class> class Gates, int H, int kSteps>
struct FrequencyGru {
  using Reg = typename V::Reg;
  static constexpr int N = kGruPositions, kMap = H * N;
  static constexpr int kRows = 3 * H;  // r, z, n
  static constexpr int kBlock = 8;     // positions whose x half is computed ahead
  static constexpr int kSums = kSumLanes<V> * kRows;
  static constexpr int kStripeRegisters = stripe_registers<V>();
  static constexpr int kStripe = kStripeRegisters * V::kWidth;
  static_assert(kRows % kStripe == 0 && kStripe % 4 == 0, "whole stripes");
  static_assert(2 * H * kRows + kSteps * (kBlock * (kSums + H) + kMap) <= gru_scratch(H), "fits");
  static_assert(kMap <= kBlock * (kSums + H),
                "the transposed output takes the place of both `ahead`");

  float *columns_x, *columns_h;  // H x 3H each: transposed weights
  float* ahead;                  // kSteps x kBlock x lanes x 3H: sums of the x half
  float* ahead_n;                // kSteps x kBlock x H: those of n, complete
  float* rectified;              // kSteps x N x H
  // For a written loop the states of both steps in its order; it reads ahead.
  static constexpr bool kRecurrentLoop = RecurrentLoop<V>::kWritten && kSteps == 2;
  float states[kRecurrentLoop ? 2 * H + 4 : 1] = {};

  // Where a row begins in a transposed half: stripes of kStripe rows, column by column, so that the
  // recurrence reads straight through.
  static constexpr int stripe_at(int row) { return row / kStripe * (H * kStripe) + row % kStripe; }

  static void transpose_rows(float* half, int first_row, const float* weight, int stride) {
    for (int r = 0; r < H; r += 4) {
      transpose<V>(half + stripe_at(first_row + r), kStripe, weight + r * stride, stride, 4, H);
    }
  }

  void transpose_weights(const GruJob& job) {
    const struct {
      const float *x, *h;
      int stride;
    } gates[] = {{job.weight_ir, job.weight_ir + H, 2 * H},
                 {job.weight_iz, job.weight_iz + H, 2 * H},
                 {job.weight_in_x, job.weight_in_h, job.weight_in_stride}};
    for (int g = 0; g < 3; ++g) {
      transpose_rows(columns_x, g * H, gates[g].x, gates[g].stride);
      transpose_rows(columns_h, g * H, gates[g].h, gates[g].stride);
    }
  }

  // The x half for positions first .. first+kBlock-1. That of n is a sum of its own: it is folded, and its
  // h half starts from the zeros that `ahead` has there.
  void x_half(const float* input, int first) {
    constexpr int C = 4, P = kStripeRegisters, kGroups = kBlock / C;
    for (int row = 0; row < kRows; row += kStripe) {
      const float* weights[P];
      for (int p = 0; p < P; ++p) weights[p] = columns_x + stripe_at(row + p * V::kWidth);
      for (int g = 0; g < kSteps * kGroups; ++g) {
        LaneSums<V, C, P> sums;
        sums.compute(input + g / kGroups * kMap + first + g % kGroups * C, 1, N, weights,
                     kRowTaps<H, kStripe>.at, H);
        for (int c = 0; c < C; ++c) {
          for (int p = 0; p < P; ++p) {
            const int r = row + p * V::kWidth, at = g * C + c;
            if (r >= 2 * H) {
              V::store(ahead_n + at * H + r - 2 * H, sums.fold(c, p));
              continue;
            }
            for (int l = 0; l < kSumLanes<V>; ++l) {
              V::store(ahead + at * kSums + l * kRows + r, sums.lane[l][c][p]);
            }
          }
        }
      }
    }
  }

  // The same with a written loop, which puts its sums where they belong.
  void x_half_with_tap_loop(const float* input, int first) {
    constexpr int C = 4, P = kStripeRegisters, kGroups = kBlock / C;
    WrittenTaps<V, H> taps[kSteps * kGroups];
    for (int g = 0; g < kSteps * kGroups; ++g) {
      taps[g].set_places(kRowTaps<H, kStripe>.at, H);
      taps[g].set_columns(input + g / kGroups * kMap + first + g % kGroups * C, N);
    }
    for (int row = 0; row < 2 * H; row += kStripe) {
      for (int g = 0; g < kSteps * kGroups; ++g) {
        for (int l = 0; l < kSumLanes<V>; ++l) {
          taps[g].sum(ahead + g * C * kSums + l * kRows + row, kSums, columns_x + stripe_at(row),
                      l);
        }
      }
    }
    for (int row = 2 * H; row < kRows; row += kStripe) {
      for (int g = 0; g < kSteps * kGroups; ++g) {
        LaneSums<V, C, P> sums;
        sums.compute(taps[g], columns_x + stripe_at(row));
        for (int c = 0; c < C; ++c) {
          for (int p = 0; p < P; ++p) {
            V::store(ahead_n + (g * C + c) * H + row + p * V::kWidth - 2 * H, sums.fold(c, p));
          }
        }
      }
    }
  }

  // Adds column j of the h half, for the rows at `column`, to a lane of all steps.
  [[gnu::always_inline]] static void add_column(Reg (&lane)[kSteps][kStripeRegisters],
                                                const float* column, const float (&h)[kSteps][H],
                                                int j) {
    Reg value[kSteps];
    for (int s = 0; s < kSteps; ++s) value[s] = V::splat(h[s][j]);
    for (int p = 0; p < kStripeRegisters; ++p) {
      const Reg weight = V::load(column + p * V::kWidth);
      for (int s = 0; s < kSteps; ++s) lane[s][p] = V::mul_add(lane[s][p], weight, value[s]);
    }
  }

  // The h half of a stripe of rows for one position of all steps: continues from `start` and folds
  // into sums[s][row ..]. Lanes 0 and 2, then 1 and 3, as the fold wants them.
  void h_half(const float (&h)[kSteps][H], const float* start, int row,
              float (&sums)[kSteps][kRows]) const {
    constexpr int P = kStripeRegisters;
    Reg pair_sum[2][kSteps][P];
#pragma GCC unroll 1
    for (int pair = 0; pair < 2; ++pair) {
      Reg low[kSteps][P], high[kSteps][P];
      for (int s = 0; s < kSteps; ++s) {
        for (int p = 0; p < P; ++p) {
          const float* from = start + s * kBlock * kSums + pair * kRows + row + p * V::kWidth;
          low[s][p] = V::load(from);
          high[s][p] = V::load(from + 2 * kRows);
        }
      }
      const float* w = columns_h + stripe_at(row) + pair * kStripe;
      for (int j = pair; j < H; j += 4, w += 4 * kStripe) {
        add_column(low, w, h, j);
        add_column(high, w + 2 * kStripe, h, j + 2);
      }
      for (int s = 0; s < kSteps; ++s) {
        for (int p = 0; p < P; ++p) pair_sum[pair][s][p] = V::add(low[s][p], high[s][p]);
      }
    }
    for (int s = 0; s < kSteps; ++s) {
      for (int p = 0; p < P; ++p) {
        V::store(&sums[s][row + p * V::kWidth], V::add(pair_sum[0][s][p], pair_sum[1][s][p]));
      }
    }
  }

  // The same of sums with one lane.
  void h_half_of_one_lane(const float (&h)[kSteps][H], const float* start, int row,
                          float (&sums)[kSteps][kRows]) const {
    constexpr int P = kStripeRegisters;
    Reg lane[kSteps][P];
    for (int s = 0; s < kSteps; ++s) {
      for (int p = 0; p < P; ++p) {
        lane[s][p] = V::load(start + s * kBlock * kSums + row + p * V::kWidth);
      }
    }
    const float* w = columns_h + stripe_at(row);
    for (int j = 0; j < H; ++j, w += kStripe) add_column(lane, w, h, j);
    for (int s = 0; s < kSteps; ++s) {
      for (int p = 0; p < P; ++p) V::store(&sums[s][row + p * V::kWidth], lane[s][p]);
    }
  }

  // Position g of the map, `ahead_at` of the block.
  void position(const GruJob& job, int g, int ahead_at, float (&h)[kSteps][H]) {
    float sums[kSteps][kRows];
    const float* start = ahead + ahead_at * kSums;
    for (int row = 0; row < kRows; row += kStripe) {
      if constexpr (kRecurrentLoop) {
        RecurrentLoop<V>::template sum<H>(sums[0] + row, kRows, start + row, kBlock * kSums, kRows,
                                          columns_h + stripe_at(row), kStripe, states);
      } else if constexpr (kSumLanes<V> == 1) {
        h_half_of_one_lane(h, start, row, sums);
      } else {
        h_half(h, start, row, sums);
      }
    }
    for (int i = 0; i < H; i += V::kWidth) {
      for (int s = 0; s < kSteps; ++s) {
        auto biased = [&](int gate, const float* bias) {
          return V::add(V::load(&sums[s][gate * H + i]), unsigned_zero<V>(V::load(bias + i)));
        };
        const Reg n_x = V::add(V::load(ahead_n + (s * kBlock + ahead_at) * H + i),
                               unsigned_zero<V>(V::load(job.bias_in1 + i)));
        const Reg next = next_state<V, Gates>(biased(0, job.bias_ir), biased(1, job.bias_iz), n_x,
                                              biased(2, job.bias_in2), V::load(&h[s][i]));
        V::store(&h[s][i], next);
        V::store(rectified + (s * N + g) * H + i, relu<V>(next));
      }
      if constexpr (kRecurrentLoop) {
        RecurrentLoop<V>::template arrange<H>(states, i, V::load(&h[0][i]), V::load(&h[1][i]));
      }
    }
  }

  static void run(const GruJob& job) {
    FrequencyGru gru;
    gru.columns_x = job.scratch;
    gru.columns_h = gru.columns_x + H * kRows;
    gru.ahead = gru.columns_h + H * kRows;
    gru.ahead_n = gru.ahead + kSteps * kBlock * kSums;
    gru.rectified = gru.ahead_n + kSteps * kBlock * H;
    float* channel_major = gru.ahead;  // free again by then
    gru.transpose_weights(job);
    memset(gru.ahead, 0, kSteps * kBlock * kSums * sizeof(float));  // the sums of n's h half
    float h[kSteps][H] = {};
    for (int first = 0; first < N; first += kBlock) {
      if constexpr (TapLoop<V>::kWritten) {
        gru.x_half_with_tap_loop(job.input, first);
      } else {
        gru.x_half(job.input, first);
      }
      for (int g = 0; g < kBlock; ++g) gru.position(job, first + g, g, h);
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
