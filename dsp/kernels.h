// The one table of kernels, and the one place where an instruction set is chosen.
//
// Each kernel is written once, as a template over a register (simd_*.h), and compiled once per
// instruction set in kernels/. All variants give the same bits; the scalar one is row 0 and
// the truth. The best variant that the processor offers is chosen at the first use; the environment
// variable QUIBO_KERNELS (a row's name, see kernels/kernels.cpp) overrides the choice. The choice is
// process-wide and made once: nothing here is locked.
#pragma once

#include "dsp/complex.h"
#include "quibo/quibo.h"

namespace quibo {

struct FftKernels {
  void (*forward)(const float* samples, float* bins);
  void (*inverse)(const float* bins, float* samples);
};

struct LaecKernels {
  void (*estimate_echo)(LAEC*);
  void (*adapt)(LAEC*);
  void (*update_gain)(LAEC*);
  void (*apply_gain)(LAEC*);
  float (*energy)(const float* x, int len);  // len a multiple of 4
};

// Float network kernels; shapes and summation order in nn/float_kernels.h.
enum class Activation { kSigmoid, kTanh };

constexpr int kConvMaxTaps = 64 * 9;  // the suppressors' widest layer: 3 x 3 of 64 channels

// A product of a layer over the frequency positions of consecutive steps. For output channel k and
// position p of step s:
//   y = sum over taps j of weight[k*row_stride + j] * input[s*input_step + tap_offset[j] + p]
//       + bias[k], then, each where its pointer is set,
//   y < 0: prelu[k] * y;   y = scale[k] * y + shift[k];   y += residual[...]
// written to output[s*output_step + k*output_stride + p].
struct ConvJob {
  const float* weight;
  int row_stride;
  const float* bias;
  const float* prelu;
  const float *scale, *shift;
  const int32_t* tap_offset;
  int taps;          // a multiple of 4, at most kConvMaxTaps
  int out_channels;  // a multiple of 4
  int positions;     // a multiple of 32
  int steps;         // 1 or more, consecutive in time
  const float* input;
  int input_step;
  float* output;
  int output_stride, output_step;
  const float* residual;
  int residual_stride, residual_step;
};

// A recurrent block of a suppressor on maps of H channels x 32 positions, one map per step,
// channel-major; definition in nn/gru_kernels.h. Steps are consecutive in time; output may be input.
constexpr int kGruPositions = 32;

constexpr int gru_scratch(int H) {
  return 6 * H * H + 272 * H;  // floats
}

struct GruJob {
  const float *weight_ir, *weight_iz;      // H x 2H: columns of x, then of h
  const float *weight_in_x, *weight_in_h;  // H x H with rows weight_in_stride apart
  int weight_in_stride;
  const float *bias_ir, *bias_iz, *bias_in1, *bias_in2;  // H each; in1 goes with x, in2 with h
  const float *linear_weight, *linear_bias;              // H x H, H
  const float *norm_weight, *norm_bias;                  // H each, or null: no affine step
  float* state;  // time block: position-major 32 x H, updated; frequency block: receives the last
                 // position's state, or null
  const float* input;
  float* output;
  int steps;  // 1 or 2
  float* scratch;
};

struct GruKernels {
  void (*time)(const GruJob&);
  void (*frequency)(const GruJob&);
};

// Lengths and matrix sides of products are multiples of 4.
struct FloatKernels {
  float (*arr_mul_arr_float)(const float* in1, const float* in2, int len);
  void (*mat_mul_vec_float)(float* out, const float* mat, const float* vec, int M, int N);
  void (*act_h)(float* out, const float* in, int len, Activation flag);
  void (*vec_act_h)(float* out, const float* in, int len, Activation flag);
  void (*conv)(const ConvJob&);
  void (*split_columns)(float* even, float* odd, const float* row, int pairs);
  void (*join_columns)(float* row, const float* even, const float* odd, int pairs);
  void (*bin_groups)(float* out, const float* weight, const float* bias, const float* in);
  GruKernels denoise_gru, aec_gru;
};

constexpr int kDoaMinChannels = 16;  // fewest channels per call: one register

struct DoaKernels {
  // Of DOA_BINS bins each.
  void (*phase_transform)(const complex_t* a, const complex_t* b, complex_t* g);
  // taps: 8 or 9; channels >= kDoaMinChannels.
  void (*depthwise)(const float* const* inputs, const float* weights, int taps, int channels,
                    float* out);
};

// Sums to codes: x = sum * multiplier + offset, limited to low..high (a NaN to low), rounded with
// halves away from zero, plus zero_point. The caller chooses the limits so that a code lies in
// 0..255.
struct Requantiser {
  float multiplier, offset, low, high;
  int32_t zero_point;
};

constexpr int kInt8MinCount = 16;  // fewest rows, channels or values per call: one register
constexpr int kInt8MinDepth = 64, kInt8MaxDepth = 256;
constexpr int kInt8MaxSmallWeights = 64 * 48;
constexpr int kInt8ChannelTaps = 8;

// Quantised layers: uint8 codes, int8 weights, sums and biases of 32 bits that wrap. No zero point
// is subtracted. Outputs must not overlap inputs.
struct Int8Kernels {
  // out[r] = bias[r] + sum over k < depth of in[k] * weight[r * depth + k]. rows >= kInt8MinCount,
  // kInt8MinDepth <= depth <= kInt8MaxDepth.
  void (*mat_vec)(const uint8_t* in, const int8_t* weight, const int32_t* bias, int rows, int depth,
                  int32_t* out);
  // The same for every row of in, [positions][depth] to [positions][rows]; for small layers:
  // positions a multiple of 3, rows of 16, depth of 4, rows * depth <= kInt8MaxSmallWeights.
  void (*mat_mul)(const uint8_t* in, int positions, const int8_t* weight, const int32_t* bias,
                  int rows, int depth, int32_t* out);
  // out[c] = bias[c] + sum over t < 8 of in[8 * c + t] * weight[8 * c + t]. channels >=
  // kInt8MinCount.
  void (*per_channel)(const uint8_t* in, const int8_t* weight, const int32_t* bias, int channels,
                      int32_t* out);
  // count >= kInt8MinCount.
  void (*requantise)(const int32_t* sums, int count, const Requantiser& q, uint8_t* out);
  // out[i] = first[i] - first_zero + round((second[i] - second_zero) * multiplier), the product
  // limited to +-2^30 (a NaN to -2^30). count >= kInt8MinCount.
  void (*add_rescaled)(const uint8_t* first, int32_t first_zero, const uint8_t* second,
                       int32_t second_zero, float multiplier, int count, int32_t* out);
};

struct Kernels {
  const char* name;
  FftKernels fft512, fft1024, fft2048;
  LaecKernels laec;
  FloatKernels net;
  DoaKernels doa;
  Int8Kernels int8;
};

// The variant in use.
const Kernels& kernels();

// Variant i of those this processor can run, slowest (scalar) first; null past the last one.
const Kernels* available_kernels(int i);

// The same of those whose multiply-adds are one operation (simd_fused.h): their bits are their own.
// They are in use only where the library was built with QUIBO_FUSED or by name.
const Kernels* fused_kernels(int i);

// Makes the named variant the one in use; false, and no change, where this processor or build does
// not have it. For tests and benchmarks; call it between frames.
bool use_kernels(const char* name);

}  // namespace quibo
