// The one table of kernels, and the one place where an instruction set is chosen.
//
// Each kernel is written once, as a template over a register (simd_*.h), and compiled once per
// instruction set in kernels_*.cpp. All variants give the same bits; the scalar one is row 0 and
// the truth. The best variant that the processor offers is chosen at the first use; the environment
// variable QUIBO_KERNELS (scalar, sse2, avx2, avx512 or neon) overrides the choice. The choice is
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
};

// Float network kernels; shapes and summation order in float_kernels.h.
enum class Activation { kSigmoid, kTanh };

struct FloatKernels {
  float (*arr_mul_arr_float)(const float* in1, const float* in2, int len);
  void (*mat_mul_vec_float)(float* out, const float* mat, const float* vec, int M, int N);
  void (*arr_exp)(float* out, const float* in, int len);
  void (*act_h)(float* out, const float* in, int len, Activation flag);
  void (*vec_act_h)(float* out, const float* in, int len, Activation flag);
};

struct DoaKernels {
  void (*phase_transform)(const complex_t* a, const complex_t* b, complex_t* g);
  void (*depthwise)(const float* const* inputs, const float* weights, int taps, int channels,
                    float* out);
};

struct Kernels {
  const char* name;
  FftKernels fft512, fft1024, fft2048;
  LaecKernels laec;
  FloatKernels net;
  DoaKernels doa;
};

// The variant in use.
const Kernels& kernels();

// Variant i of those this processor can run, slowest (scalar) first; null past the last one.
const Kernels* available_kernels(int i);

// Makes the named variant the one in use; false, and no change, where this processor or build does
// not have it. For tests and benchmarks; call it between frames.
bool use_kernels(const char* name);

}  // namespace quibo
