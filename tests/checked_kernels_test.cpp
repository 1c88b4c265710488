// The self-checking build notices a kernel that differs from its scalar twin, and only then.

#include "kernels/checked_kernels.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "support/variants.h"

namespace {

using quibo::Kernels;

void last_bit_off(float* out, const float* in, int len, quibo::Activation flag) {
  quibo::available_kernels(0)->net.act_h(out, in, len, flag);
  out[len - 1] = std::nextafter(out[len - 1], 2.0f);
}

void wrong_code(const int32_t* sums, int count, const quibo::Requantiser& q, uint8_t* out) {
  quibo::available_kernels(0)->int8.requantise(sums, count, q, out);
  out[0] ^= 1;
}

TEST(CheckedKernels, OneBitOffEndsTheProcessWithTheKernelsName) {
  Kernels faulty = *quibo::available_kernels(0);
  faulty.name = "faulty";
  faulty.net.act_h = last_bit_off;
  faulty.int8.requantise = wrong_code;
  const Kernels& checked = quibo::checked_kernels(faulty);
  std::vector<float> x(33, 0.25f), y(33);
  EXPECT_DEATH(checked.net.act_h(y.data(), x.data(), 33, quibo::Activation::kTanh),
               "act_h of faulty differs");
  const std::vector<int32_t> sums(48, 100);
  std::vector<uint8_t> codes(48);
  const quibo::Requantiser q = {0.5f, 0.0f, 0.0f, 255.0f, 0};
  EXPECT_DEATH(checked.int8.requantise(sums.data(), 48, q, codes.data()), "requantise of faulty");
}

// Numbers just outside what kernels.h allows. The arrays would do for any of these calls.
TEST(CheckedKernels, AShapeThatAKernelDoesNotTakeEndsTheProcess) {
  const Kernels& checked = quibo::checked_kernels(quibo::kernels());
  std::vector<float> f(1 << 16);
  std::vector<int32_t> sums(1 << 12), taps(64);
  std::vector<uint8_t> codes(1 << 16);
  std::vector<int8_t> weights(1 << 16);
  const std::vector<const float*> inputs(16, f.data());
  float* out = &f[1 << 15];
  auto conv = [&](int tap_count, int channels, int positions, int steps) {
    quibo::ConvJob job = {};
    job.weight = job.bias = job.input = f.data();
    job.output = out;
    job.tap_offset = taps.data();
    job.taps = tap_count;
    job.out_channels = channels;
    job.positions = positions;
    job.steps = steps;
    checked.net.conv(job);
  };
  auto gru = [&](void (*run)(const quibo::GruJob&)) {
    quibo::GruJob job = {};
    job.steps = 3;
    run(job);
  };
  const quibo::Int8Kernels& int8 = checked.int8;
  auto mat_vec = [&](int rows, int depth) {
    int8.mat_vec(codes.data(), weights.data(), sums.data(), rows, depth, sums.data());
  };
  auto mat_mul = [&](int positions, int rows, int depth) {
    int8.mat_mul(codes.data(), positions, weights.data(), sums.data(), rows, depth, sums.data());
  };
  auto depthwise = [&](int tap_count, int channels) {
    checked.doa.depthwise(inputs.data(), f.data(), tap_count, channels, out);
  };
  conv(4, 4, 32, 1);
  EXPECT_DEATH(conv(6, 4, 32, 1), "conv is called with a shape");
  EXPECT_DEATH(conv(4, 6, 32, 1), "conv is called with a shape");
  EXPECT_DEATH(conv(4, 4, 48, 1), "conv is called with a shape");
  EXPECT_DEATH(conv(4, 4, 32, 0), "conv is called with a shape");
  EXPECT_DEATH(gru(checked.net.aec_gru.time), "time_gru is called with a shape");
  EXPECT_DEATH(gru(checked.net.denoise_gru.frequency), "frequency_gru is called with a shape");
  EXPECT_DEATH(checked.net.arr_mul_arr_float(f.data(), f.data(), 30), "arr_mul_arr_float is");
  EXPECT_DEATH(checked.net.mat_mul_vec_float(out, f.data(), f.data(), 6, 4), "mat_mul_vec_float");
  EXPECT_DEATH(checked.net.mat_mul_vec_float(out, f.data(), f.data(), 4, 6), "mat_mul_vec_float");
  depthwise(9, 16);
  EXPECT_DEATH(depthwise(10, 16), "depthwise is called with a shape");
  EXPECT_DEATH(depthwise(8, 15), "depthwise is called with a shape");
  mat_vec(16, 64);
  EXPECT_DEATH(mat_vec(15, 64), "mat_vec is called with a shape");
  EXPECT_DEATH(mat_vec(16, 63), "mat_vec is called with a shape");
  EXPECT_DEATH(mat_vec(16, 257), "mat_vec is called with a shape");
  mat_mul(3, 16, 4);
  EXPECT_DEATH(mat_mul(4, 16, 4), "mat_mul is called with a shape");
  EXPECT_DEATH(mat_mul(3, 24, 4), "mat_mul is called with a shape");
  EXPECT_DEATH(mat_mul(3, 16, 6), "mat_mul is called with a shape");
  EXPECT_DEATH(mat_mul(3, 64, 52), "mat_mul is called with a shape");
  EXPECT_DEATH(int8.per_channel(codes.data(), weights.data(), sums.data(), 15, &sums[1024]),
               "per_channel");
  EXPECT_DEATH(int8.requantise(sums.data(), 15, {}, codes.data()), "requantise is called");
  EXPECT_DEATH(int8.add_rescaled(codes.data(), 0, codes.data(), 0, 1.0f, 15, sums.data()),
               "add_rescaled is called with a shape");
}

TEST(CheckedKernels, ResultsAreTheScalarOnesInPlaceToo) {
  quibo_test::for_each_variant([](const std::string&) {
    const Kernels& checked = quibo::checked_kernels(quibo::kernels());
    std::vector<float> x(1026, 0.5f), in_place(1026, 0.5f), y(1026);
    x[7] = in_place[7] = -3.0f;
    quibo::available_kernels(0)->fft1024.forward(x.data(), y.data());
    checked.fft1024.forward(in_place.data(), in_place.data());
    EXPECT_EQ(in_place, y);
  });
}

}  // namespace
