// Real FFT of n = 512, 1024 or 2048 points, shared by all modules.
//
//   my_fft<n>(input, output)    n samples -> n/2+1 bins, X[k] = sum_j x[j] e^(-2*pi*i*j*k/n),
//   unscaled;
//                               the imaginary parts of bins 0 and n/2 are 0
//   my_ifft<n>(input, output)   n/2+1 bins -> n samples, scaled so that it inverts my_fft;
//                               the imaginary parts of bins 0 and n/2 are not read
//
// A bin is any pair of floats (real, imaginary). No alignment is asked for. The input is left as it
// is and may be the output: everything is read before anything is written. Scratch is on the stack
// (16 KiB at n = 2048); no state, no allocation. Twiddle factors carry six decimals, which bounds
// the accuracy: in the frame's root sum of squares, a bin errs by up to 5e-6 for noise, and by up
// to 5e-5 for a pure tone.
#pragma once

#include "dsp/kernels.h"

namespace quibo {

template <int n>
const FftKernels& fft_kernels() {
  static_assert(n == 512 || n == 1024 || n == 2048, "lengths in use");
  const Kernels& k = kernels();
  return n == 512 ? k.fft512 : n == 1024 ? k.fft1024 : k.fft2048;
}

template <int n, class Complex>
void my_fft(const float* input, Complex* output) {
  static_assert(sizeof(Complex) == 2 * sizeof(float), "a bin is a pair of floats");
  fft_kernels<n>().forward(input, reinterpret_cast<float*>(output));
}

template <int n, class Complex>
void my_ifft(const Complex* input, float* output) {
  static_assert(sizeof(Complex) == 2 * sizeof(float), "a bin is a pair of floats");
  fft_kernels<n>().inverse(reinterpret_cast<const float*>(input), output);
}

}  // namespace quibo
