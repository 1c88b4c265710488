// Time per 30 ms block of the direction estimator, whole and split into features and network, on
// every instruction set, and of a plain SRP-PHAT over the same array, frames and transforms.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "doa/customs_doa_api.h"
#include "doa/doa_features.h"
#include "doa/doa_network.h"
#include "dsp/fft.h"
#include "dsp/kernels.h"

namespace {

constexpr int kBlocks = 64;
constexpr double kRadius = 0.05, kSpeedOfSound = 343.0;  // metres, metres per second

// Noise from one side: the same on all microphones but for a delay, and some of each one's own.
struct Signals {
  std::vector<int16_t> mic[DOA_MICS];

  Signals() {
    std::mt19937 random(1);
    std::normal_distribution<float> normal(0.0f, 1000.0f);
    constexpr int kDelays[DOA_MICS] = {0, 2, 3};
    std::vector<float> source(kBlocks * QUIBO_BLOCK + 3);
    for (float& v : source) v = normal(random);
    for (int m = 0; m < DOA_MICS; ++m) {
      for (int n = 0; n < kBlocks * QUIBO_BLOCK; ++n) {
        mic[m].push_back(static_cast<int16_t>(source[n + kDelays[m]] + 0.3f * normal(random)));
      }
    }
  }
};

class Estimator {
 public:
  explicit Estimator(const Signals& s) : signals_(s) { kesto_customs_doa_init(&handle_); }
  ~Estimator() { kesto_customs_doa_unit(handle_); }
  DoaNet* net() { return &static_cast<KTDParama*>(handle_)->doanet; }

  void block() {
    kesto_customs_doa_write(handle_, next(0), next(1), next(2), nullptr, 0);
    advance();
  }
  void features() {
    doa_add_samples(net()->dlayer, next(0), next(1), next(2));
    doa_fbank_gcc_phat_feature(net()->dlayer);
    advance();
  }
  void network() {
    if (features_.empty()) {
      features();
      features_.assign(net()->dlayer->out1, net()->dlayer->out1 + DOA_FEATURES);
    }
    std::copy(features_.begin(), features_.end(), net()->dlayer->out1);
    doa_forward_layers(net());
  }

 private:
  const int16_t* next(int mic) const { return &signals_.mic[mic][block_ * QUIBO_BLOCK]; }
  void advance() { block_ = (block_ + 1) % kBlocks; }

  const Signals& signals_;
  KTDHandle handle_ = nullptr;
  int block_ = 0;
  std::vector<float> features_;
};

// SRP-PHAT (DiBiase 2000): the phase-transformed cross-spectra of all pairs and of the block's
// frames, steered over a grid of azimuths. Either bin by bin, or by looking up each pair's
// correlation at the two lags around every azimuth's delay.
class SrpPhat {
 public:
  SrpPhat(const Signals& s, int azimuths, bool by_lag)
      : signals_(s), azimuths_(azimuths), by_lag_(by_lag), power_(azimuths) {
    for (int p = 0; p < DOA_PAIRS; ++p) {
      for (int a = 0; a < azimuths; ++a) delays_[p].push_back(delay(p, 2 * M_PI * a / azimuths));
      if (by_lag) continue;
      for (int k = 0; k < DOA_BINS; ++k) {
        for (double d : delays_[p]) {
          cosines_[p].push_back(static_cast<float>(std::cos(2 * M_PI * k * d / DOA_FFT)));
          sines_[p].push_back(static_cast<float>(std::sin(2 * M_PI * k * d / DOA_FFT)));
        }
      }
    }
  }

  // Returns the index of the strongest azimuth.
  long block() {
    for (int m = 0; m < DOA_MICS; ++m) {
      std::memmove(in_[m], in_[m] + QUIBO_BLOCK, (DOA_HISTORY - QUIBO_BLOCK) * sizeof in_[m][0]);
      std::memcpy(in_[m] + DOA_HISTORY - QUIBO_BLOCK, &signals_.mic[m][block_ * QUIBO_BLOCK],
                  QUIBO_BLOCK * sizeof in_[m][0]);
      for (int f = 0; f < DOA_FRAMES; ++f) {
        float frame[DOA_FFT] = {};
        for (int n = 0; n < DOA_GCC_FRAME; ++n) frame[n] = in_[m][f * DOA_HOP + n];
        quibo::my_fft<DOA_FFT>(frame, spectra_[f][m]);
      }
    }
    block_ = (block_ + 1) % kBlocks;
    std::fill(power_.begin(), power_.end(), 0.0f);
    for (int p = 0; p < DOA_PAIRS; ++p) {
      complex_t sum[DOA_BINS] = {};
      for (int f = 0; f < DOA_FRAMES; ++f) {
        complex_t g[DOA_BINS];
        quibo::kernels().doa.phase_transform(spectra_[f][kPairs[p][0]], spectra_[f][kPairs[p][1]],
                                             g);
        for (int k = 0; k < DOA_BINS; ++k) {
          sum[k].real += g[k].real;
          sum[k].imag += g[k].imag;
        }
      }
      by_lag_ ? steer_by_lag(p, sum) : steer_by_bin(p, sum);
    }
    return std::max_element(power_.begin(), power_.end()) - power_.begin();
  }

 private:
  static constexpr int kPairs[DOA_PAIRS][2] = {{0, 1}, {0, 2}, {1, 2}};

  // Lag at which pair p peaks for a plane wave from an azimuth, in samples.
  static double delay(int p, double azimuth) {
    auto arrival = [=](int mic) { return -std::cos(azimuth - 2 * M_PI * mic / DOA_MICS); };
    return (arrival(kPairs[p][0]) - arrival(kPairs[p][1])) * kRadius / kSpeedOfSound *
           QUIBO_SAMPLE_RATE;
  }

  void steer_by_bin(int p, const complex_t* sum) {
    for (int k = 0; k < DOA_BINS; ++k) {
      const float *c = &cosines_[p][k * azimuths_], *s = &sines_[p][k * azimuths_];
      for (int a = 0; a < azimuths_; ++a) power_[a] += sum[k].real * c[a] - sum[k].imag * s[a];
    }
  }

  void steer_by_lag(int p, const complex_t* sum) {
    float correlation[DOA_FFT];
    quibo::my_ifft<DOA_FFT>(sum, correlation);
    for (int a = 0; a < azimuths_; ++a) {
      const int lag = static_cast<int>(std::floor(delays_[p][a]));
      const float part = static_cast<float>(delays_[p][a]) - static_cast<float>(lag);
      power_[a] += (1 - part) * correlation[(lag + DOA_FFT) % DOA_FFT] +
                   part * correlation[(lag + 1 + DOA_FFT) % DOA_FFT];
    }
  }

  const Signals& signals_;
  int block_ = 0, azimuths_;
  bool by_lag_;
  int16_t in_[DOA_MICS][DOA_HISTORY] = {};
  complex_t spectra_[DOA_FRAMES][DOA_MICS][DOA_BINS];
  std::vector<double> delays_[DOA_PAIRS];
  std::vector<float> cosines_[DOA_PAIRS], sines_[DOA_PAIRS], power_;
};

double smallest(const std::vector<double>& values) {
  return *std::min_element(values.begin(), values.end());
}

template <class Step>
void add_row(const std::string& name, const Signals& s, const std::string& variant, Step step) {
  benchmark::RegisterBenchmark(name.c_str(),
                               [&s, variant, step](benchmark::State& state) {
                                 quibo::use_kernels(variant.c_str());
                                 Estimator estimator(s);
                                 for (auto _ : state) {
                                   (estimator.*step)();
                                   benchmark::ClobberMemory();
                                 }
                               })
      ->Unit(benchmark::kMicrosecond)
      ->ComputeStatistics("min", smallest);
}

void add_peer(const std::string& name, const Signals& s, const std::string& variant, int azimuths,
              bool by_lag) {
  benchmark::RegisterBenchmark(name.c_str(),
                               [=, &s](benchmark::State& state) {
                                 quibo::use_kernels(variant.c_str());
                                 SrpPhat srp(s, azimuths, by_lag);
                                 for (auto _ : state) benchmark::DoNotOptimize(srp.block());
                               })
      ->Unit(benchmark::kMicrosecond)
      ->ComputeStatistics("min", smallest);
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  const Signals s;
  const std::string best = quibo::kernels().name;
  for (auto [part, step] :
       {std::pair{"block/", &Estimator::block}, std::pair{"features/", &Estimator::features},
        std::pair{"network/", &Estimator::network}}) {
    add_row(std::string(part) + "quibo", s, best, step);
    for (int i = 0; const quibo::Kernels* k = quibo::available_kernels(i); ++i) {
      add_row(std::string(part) + "quibo:" + k->name, s, k->name, step);
    }
  }
  add_peer("block/srp-phat:72", s, best, 72, false);
  add_peer("block/srp-phat:360", s, best, 360, false);
  add_peer("block/srp-phat-lags:360", s, best, 360, true);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
