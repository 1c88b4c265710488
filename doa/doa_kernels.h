// The direction estimator's loops, one body for every instruction set.
#pragma once

#include "doa/ring_doa.h"
#include "dsp/complex_reg.h"
#include "dsp/simd_scalar.h"

namespace quibo {
namespace {

constexpr float kDoaMagnitudeFloor = 1e-8f;  // a bin that is silent on both sides stays 0

// Phase transform of the cross-spectrum, G = A conj(B) / |A conj(B)|, for all 513 bins (C. H. Knapp
// and G. C. Carter, "The Generalized Correlation Method for Estimation of Time Delay", 1976).
template <class V>
void doa_phase_transform(const complex_t* a, const complex_t* b, complex_t* g) {
  auto bins = [=](auto v, int k) {
    using B = decltype(v);
    const ComplexReg<B> cross = conj_times(load_pairs<B>(&b[k].real), load_pairs<B>(&a[k].real));
    const typename B::Reg d =
        B::larger(B::sqrt(squared_magnitude(cross)), B::splat(kDoaMagnitudeFloor));
    store_pairs<B>(&g[k].real, {B::div(cross.re, d), B::div(cross.im, d)});
  };
  for (int k = 0; k < DOA_BINS - 1; k += V::kWidth) bins(V{}, k);
  bins(ScalarF32{}, DOA_BINS - 1);
}

// Depth-wise convolution at one position: out[c] = sum over taps k of inputs[k][c] *
// weights[k][c], for kDoaMinChannels or more. Eight taps in the four lanes of a dot product, folded; a
// ninth is added last.
template <class V>
void doa_depthwise(const float* const* inputs, const float* weights, int taps, int channels,
                   float* out) {
  auto at = [=](auto v, int c) {
    using B = decltype(v);
    using Reg = typename B::Reg;
    auto product = [=](int k) {
      return B::mul(B::load(inputs[k] + c), B::load(weights + k * channels + c));
    };
    Reg lane[4];
    for (int i = 0; i < 4; ++i) {
      lane[i] = B::add(B::add(B::splat(0.0f), product(i)), product(i + 4));
    }
    Reg sum = B::add(B::add(lane[0], lane[2]), B::add(lane[1], lane[3]));
    for (int k = 8; k < taps; ++k) sum = B::add(sum, product(k));
    B::store(out + c, sum);
  };
  int c = 0;
  for (; c + V::kWidth <= channels; c += V::kWidth) at(V{}, c);
  if (c < channels) at(V{}, channels - V::kWidth);  // the last register overlaps the one before
}

}  // namespace
}  // namespace quibo
