// Fills one row of the kernel table for a float and an integer register. Included by one
// kernels_*.cpp per instruction set.
#pragma once

#include "aec/laec_kernels.h"
#include "doa/doa_kernels.h"
#include "dsp/fft_kernels.h"
#include "dsp/kernels.h"
#include "nn/float_kernels.h"
#include "nn/gru_kernels.h"
#include "nn/int8_kernels.h"

namespace quibo {
namespace {

template <class V, int n>
constexpr FftKernels make_fft_kernels() {
  return {RealFft<V, n>::forward, RealFft<V, n>::inverse};
}

template <class V, class I>
constexpr Kernels make_kernels(const char* name) {
  return {name,
          make_fft_kernels<V, 512>(),
          make_fft_kernels<V, 1024>(),
          make_fft_kernels<V, 2048>(),
          {laec_estimate_echo<V>, laec_adapt<V>, laec_update_gain<V>, laec_apply_gain<V>,
           laec_energy<V>},
          {arr_mul_arr_float<V>,
           mat_mul_vec_float<V>,
           act_h<V>,
           vec_act_h<V>,
           conv<V>,
           split_columns<V>,
           join_columns<V>,
           bin_groups<V>,
           {time_gru<V, FastGates, 32>, frequency_gru<V, FastGates, 32>},
           {time_gru<V, ExactGates, 64>, frequency_gru<V, ExactGates, 64>}},
          {doa_phase_transform<V>, doa_depthwise<V>},
          {int8_mat_vec<I>, int8_mat_mul<I>, int8_per_channel<I>, int8_requantise<I>,
           int8_add_rescaled<I>}};
}

}  // namespace
}  // namespace quibo
