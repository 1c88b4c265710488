#include "level_scan.h"

#include <algorithm>
#include <cmath>

#include "dsp/complex.h"
#include "dsp/fft.h"
#include "samples.h"

namespace quibo::recordings {

namespace {

constexpr double kActive = -60, kSilent = -90;  // dBFS
constexpr int kFft = QUIBO_FRAME, kBins = kFft / 2 + 1;
constexpr double kBinHz = static_cast<double>(QUIBO_SAMPLE_RATE) / kFft;

int to_index(double level) {
  return std::clamp(static_cast<int>(-level), 0, 120);
}

}  // namespace

LevelScan::LevelScan() {
  for (auto& spectrum : spectrum_) spectrum.resize(kBins);
  for (int i = 0; i < kFft; ++i) {
    hann_.push_back(static_cast<float>(0.5 - 0.5 * std::cos(2 * M_PI * i / kFft)));
  }
}

void LevelScan::add(const int16_t track[kTracks][QUIBO_FRAME]) {
  double level[kTracks];
  float difference[kTracks][QUIBO_FRAME];
  for (int t = 0; t < kTracks; ++t) {
    float samples[kFft];
    complex_t bins[kBins];
    double power = 0;
    for (int i = 0; i < QUIBO_FRAME; ++i) {
      const float x = to_float(track[t][i]);
      difference[t][i] = x - to_float(last_[t]);
      last_[t] = track[t][i];
      power += static_cast<double>(x) * static_cast<double>(x);
      samples[i] = x * hann_[static_cast<size_t>(i)];
    }
    my_fft<kFft>(samples, bins);
    for (size_t k = 0; k < kBins; ++k) {
      spectrum_[t][k] +=
          static_cast<double>(bins[k].real * bins[k].real + bins[k].imag * bins[k].imag);
    }
    power_[t] += power;
    level[t] = power_db(power / QUIBO_FRAME);
  }
  const bool plays = level[kRef] > kActive;
  playing_ += plays;
  ++frames_;
  const double loudest = *std::max_element(level, level + kTracks);
  for (int t = 0; t < kTracks; ++t) {
    ++all_[t][to_index(level[t])];
    if (level[kRef] < kSilent + 20) ++quiet_[t][to_index(level[t])];
    silent_alone_[t] += level[t] < kSilent && loudest > kActive;
    for (int u = 0; u <= t; ++u) {
      float shared = 0;
      for (int i = 0; i < QUIBO_FRAME; ++i) shared += difference[t][i] * difference[u][i];
      shared_[t][u] += static_cast<double>(shared);
      shared_[u][t] = shared_[t][u];
    }
  }
}

double LevelScan::level(int track) const {
  return frames_ > 0 ? power_db(power_[track] / (static_cast<double>(frames_) * QUIBO_FRAME))
                     : -120;
}

double LevelScan::quantile_of(const int64_t (&histogram)[kLevels], double share) const {
  int64_t total = 0, below = 0;
  for (const int64_t count : histogram) total += count;
  if (total == 0) return NAN;
  for (int i = kLevels - 1; i >= 0; --i) {
    below += histogram[i];
    if (static_cast<double>(below) >= share * static_cast<double>(total)) return -i;
  }
  return 0;
}

double LevelScan::quantile(int track, double share) const {
  return quantile_of(all_[track], share);
}

double LevelScan::floor(int track) const {
  return quantile_of(quiet_[track], 0.1);
}

double LevelScan::distance(int a, int b) const {
  const double powers = shared_[a][a] * shared_[b][b];
  if (powers <= 0) return 0;
  return power_db(std::max(0.0, 1.0 - shared_[a][b] * shared_[a][b] / powers));
}

double LevelScan::band_edge(int track) const {
  constexpr double kDrop = 25, kSkirt = 150, kLowest = 1500, kHighest = 7000, kAbove = 7800;
  const auto bin = [](double hertz) { return static_cast<size_t>(hertz / kBinHz); };
  const std::vector<double>& s = spectrum_[track];
  // From above: the loudest quarter of a kilohertz at and over each bin.
  const auto mean = [&](size_t from, size_t to) {
    double sum = 0;
    for (size_t k = from; k < to; ++k) sum += s[k];
    return 10 * std::log10(sum / static_cast<double>(to - from) + 1e-15);
  };
  for (int step = 0; kLowest + step * kBinHz <= kHighest; ++step) {
    const double edge = kLowest + step * kBinHz;
    const double below = mean(bin(edge - 300), bin(edge - 50));
    double above = -200;
    for (double f = edge + kSkirt; f + 250 <= kAbove; f += 125)
      above = std::max(above, mean(bin(f), bin(f + 250)));
    if (below - above > kDrop && below > -100) return edge + kSkirt;
  }
  return 0;
}

}  // namespace quibo::recordings
