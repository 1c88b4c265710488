// The real FFT against a double-precision DFT, on every instruction set.

#include "dsp/fft.h"

#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstring>
#include <random>
#include <vector>

#include "support/bits.h"
#include "support/variants.h"

namespace {

using quibo_test::for_each_variant;
using Bins = std::vector<std::complex<float>>;

constexpr unsigned kSeed = 20251103;

// Six-decimal twiddles: relative to the frame's root sum of squares.
constexpr double kForwardBar = 8e-6, kToneBar = 5e-5;
constexpr double kRoundTripBar = 1.2e-5;

std::vector<std::complex<double>> naive_dft(const std::vector<float>& x) {
  const size_t n = x.size();
  std::vector<std::complex<double>> result(n / 2 + 1);
  for (size_t k = 0; k < result.size(); ++k) {
    for (size_t j = 0; j < n; ++j) {
      const double turn = static_cast<double>(j * k % n) / static_cast<double>(n);
      result[k] += static_cast<double>(x[j]) * std::polar(1.0, -2 * M_PI * turn);
    }
  }
  return result;
}

double root_sum_of_squares(const std::vector<float>& x) {
  double sum = 0;
  for (float v : x) sum += static_cast<double>(v) * v;
  return std::sqrt(sum);
}

template <class Length>
class RealFft : public testing::Test {
 protected:
  static constexpr int n = Length::value;

  static std::vector<float> noise(unsigned seed) {
    std::mt19937 random(seed);
    std::normal_distribution<float> normal;
    std::vector<float> x(n);
    for (float& v : x) v = normal(random);
    return x;
  }

  // What a transform does not write is not a number.
  static Bins forward(const std::vector<float>& x) {
    Bins bins(n / 2 + 1, {NAN, NAN});
    quibo::my_fft<n>(x.data(), bins.data());
    return bins;
  }

  static std::vector<float> inverse(const Bins& bins) {
    std::vector<float> x(n, NAN);
    quibo::my_ifft<n>(bins.data(), x.data());
    return x;
  }
};

template <int n>
struct Length {
  static constexpr int value = n;
};

using Lengths = testing::Types<Length<512>, Length<1024>, Length<2048>>;
TYPED_TEST_SUITE(RealFft, Lengths);

TYPED_TEST(RealFft, MatchesDftAndRoundTripsOnEveryVariant) {
  constexpr int n = TestFixture::n;
  std::vector<std::vector<float>> frames;
  for (unsigned i = 0; i < 3; ++i) frames.push_back(this->noise(kSeed + i));
  frames.emplace_back(n, 1.0f);  // constant: bin 0 alone
  frames.emplace_back(n, 0.0f);  // impulse at 0: every bin 1
  frames.back()[0] = 1.0f;
  frames.emplace_back(n, 0.0f);  // impulse at 1: e^(-2*pi*i*k/n)
  frames.back()[1] = 1.0f;
  frames.emplace_back(n);  // Nyquist: bin n/2 alone
  for (int j = 0; j < n; ++j) frames.back()[j] = j % 2 ? -1.0f : 1.0f;
  const size_t tones = frames.size();
  for (int bin : {1, n / 8 + 3, 29 * n / 80, n / 2 - 1}) {  // whose errors add up in one bin
    frames.emplace_back(n);
    for (int j = 0; j < n; ++j) {
      frames.back()[j] = static_cast<float>(std::cos(2 * M_PI * (j * bin % n) / n));
    }
  }

  for (size_t f = 0; f < frames.size(); ++f) {
    const std::vector<float>& x = frames[f];
    const auto expected = naive_dft(x);
    const double scale = root_sum_of_squares(x);
    const double bar = f < tones ? kForwardBar : kToneBar;
    for_each_variant([&](const std::string& variant) {
      const Bins bins = this->forward(x);
      for (int k = 0; k <= n / 2; ++k) {
        ASSERT_LT(std::abs(std::complex<double>(bins[k]) - expected[k]), bar * scale)
            << variant << ", frame " << f << ", bin " << k << ", seed " << kSeed;
      }
      const std::vector<float> back = this->inverse(bins);
      for (int j = 0; j < n; ++j) {
        ASSERT_NEAR(back[j], x[j], kRoundTripBar * std::max(1.0, scale / std::sqrt(n)))
            << variant << ", frame " << f << ", sample " << j << ", seed " << kSeed;
      }
    });
  }
}

TYPED_TEST(RealFft, EveryVariantGivesTheScalarBits) {
  for (unsigned i = 0; i < 20; ++i) {
    const std::vector<float> x = this->noise(kSeed + 100 + i);
    Bins scalar_bins;
    std::vector<float> scalar_back;
    for_each_variant([&](const std::string& variant) {
      const Bins bins = this->forward(x);
      const std::vector<float> back = this->inverse(bins);
      if (variant == "scalar") {
        scalar_bins = bins;
        scalar_back = back;
      }
      EXPECT_EQ(0, std::memcmp(bins.data(), scalar_bins.data(), bins.size() * sizeof bins[0]))
          << variant;
      EXPECT_EQ(0, std::memcmp(back.data(), scalar_back.data(), back.size() * sizeof back[0]))
          << variant;
    });
  }
}

TYPED_TEST(RealFft, KeepsItsBits) {
  constexpr int n = TestFixture::n;
  std::mt19937 random(kSeed);
  quibo_test::Bits bits;
  for (int frame = 0; frame < 20; ++frame) {
    const Bins bins = this->forward(quibo_test::even_noise(random, n));
    bits.add(bins);
    bits.add(this->inverse(bins));
  }
  EXPECT_EQ(n == 512    ? 0x4b38c8f56eba0a3b
            : n == 1024 ? 0xd2df7fd6c0a0d8ba
                        : 0xd83ffcf38dd45e3f,
            bits.value());
}

TYPED_TEST(RealFft, EndBinsAreRealAndTheirImaginaryPartsIgnored) {
  constexpr int n = TestFixture::n;
  Bins bins = this->forward(this->noise(kSeed));
  EXPECT_EQ(bins[0].imag(), 0.0f);
  EXPECT_EQ(bins[n / 2].imag(), 0.0f);
  const std::vector<float> expected = this->inverse(bins);
  bins[0].imag(3.0f);
  bins[n / 2].imag(-5.0f);
  EXPECT_EQ(this->inverse(bins), expected);
}

TYPED_TEST(RealFft, WorksInPlaceAndAtAnyAlignment) {
  constexpr int n = TestFixture::n;
  const std::vector<float> x = this->noise(kSeed);
  const Bins bins = this->forward(x);
  const std::vector<float> back = this->inverse(bins);
  std::vector<float> buffer(n + 3);
  float* odd = buffer.data() + 1;
  std::memcpy(odd, x.data(), n * sizeof(float));
  auto* pairs = reinterpret_cast<std::complex<float>*>(odd);
  quibo::my_fft<n>(odd, pairs);
  EXPECT_EQ(0, std::memcmp(odd, bins.data(), bins.size() * sizeof bins[0]));
  quibo::my_ifft<n>(pairs, odd);
  EXPECT_EQ(0, std::memcmp(odd, back.data(), back.size() * sizeof back[0]));
}

}  // namespace
