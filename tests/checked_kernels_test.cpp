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
