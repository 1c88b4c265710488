#include "echo_scan.h"

#include <algorithm>
#include <cmath>

#include "dsp/fft.h"
#include "samples.h"

namespace quibo::recordings {

namespace {

constexpr int kWindow = 16;                                  // frames, about a second
constexpr int kLongWindow = 5;                               // windows
constexpr float kPlays = -60.0f;                             // dBFS
constexpr int kFuture = -EchoScan::kEarliest / QUIBO_FRAME;  // frames of reference looked ahead
constexpr int kPairs[kMics][2] = {{0, 1}, {0, 2}, {1, 2}};

using Spectrum = std::vector<std::complex<float>>;

void add_cross(Spectrum* sum, const Spectrum& a, const Spectrum& b) {
  for (size_t k = 0; k < sum->size(); ++k) {
    // a * conj(b), without the checks for infinities that std::complex makes
    const float re = a[k].real() * b[k].real() + a[k].imag() * b[k].imag();
    const float im = a[k].imag() * b[k].real() - a[k].real() * b[k].imag();
    (*sum)[k] += std::complex<float>(re, im);
  }
}

void add_power(std::vector<float>* sum, const Spectrum& a) {
  for (size_t k = 0; k < sum->size(); ++k) (*sum)[k] += std::norm(a[k]);
}

// The bins that hold sound: within 50 dB of the strongest. What a band holds that is next to nothing
// is noise, and would count as much as the rest.
std::vector<bool> filled_bins(const std::vector<float>& power) {
  constexpr float kShare = 1e-5f;
  const float least = kShare * *std::max_element(power.begin(), power.end());
  std::vector<bool> filled;
  filled.reserve(power.size());
  for (const float p : power) filled.push_back(p > least);
  return filled;
}

// The share of the band below which a correlation has peaks by chance.
constexpr double kFewestFilled = 0.1;

double share(const std::vector<bool>& filled) {
  return static_cast<double>(std::count(filled.begin(), filled.end(), true)) /
         static_cast<double>(filled.size());
}

// Every bin that holds sound to the same magnitude, so that a pure delay gives a correlation of 1 at
// its lag.
std::vector<float> phat(const Spectrum& cross, const std::vector<bool>& filled) {
  constexpr float kNothing = 1e-12f;
  const float scale = static_cast<float>(1 / share(filled));
  Spectrum white(cross.size());
  for (size_t k = 0; k < cross.size(); ++k) {
    const float magnitude = std::abs(cross[k]);
    white[k] = filled[k] && magnitude > kNothing ? cross[k] * (scale / magnitude) : 0.0f;
  }
  std::vector<float> correlation(2 * (cross.size() - 1));
  my_ifft<2 * QUIBO_FRAME>(white.data(), correlation.data());
  return correlation;
}

// The vertex of the parabola through three neighbours, within half a sample of the middle one.
double vertex(float left, float middle, float right) {
  const double bend =
      static_cast<double>(left) - 2.0 * static_cast<double>(middle) + static_cast<double>(right);
  if (bend == 0) return 0;
  return std::clamp(0.5 * (static_cast<double>(left) - static_cast<double>(right)) / bend, -0.5,
                    0.5);
}

}  // namespace

EchoScan::EchoScan() : previous_ref_(QUIBO_FRAME) {
  const Spectrum zero(kBins);
  for (int m = 0; m < kMics; ++m) {
    echo_[m].assign(kPartitions, zero);
    pair_[m] = zero;
  }
  long_echo_.assign(kPartitions, zero);
  for (auto* power : {&ref_power_, &long_ref_power_, &mic_power_}) power->resize(kBins);
}

// The overlap-save arrangement of the canceller: the second half of a block of 2048 is a frame of
// microphone, and 2048 samples of reference end a whole number of frames before it. Partition p then
// holds the lags from 1024 p on.
void EchoScan::add(const int16_t track[kTracks][QUIBO_FRAME]) {
  std::vector<float> block(kFft);
  Spectrum spectrum(kBins);
  std::copy(previous_ref_.begin(), previous_ref_.end(), block.begin());
  for (int i = 0; i < QUIBO_FRAME; ++i)
    previous_ref_[static_cast<size_t>(i)] = to_float(track[kRef][i]);
  std::copy(previous_ref_.begin(), previous_ref_.end(), block.begin() + QUIBO_FRAME);
  my_fft<kFft>(block.data(), spectrum.data());
  ref_.push_front(spectrum);
  add_power(&ref_power_, spectrum);
  if (ref_.size() > kPartitions) ref_.pop_back();

  std::fill(block.begin(), block.end(), 0.0f);
  for (int t = 0; t < kTracks; ++t) {
    double power = 0;
    for (int i = 0; i < QUIBO_FRAME; ++i) {
      const float x = to_float(track[t][i]);
      block[static_cast<size_t>(QUIBO_FRAME) + static_cast<size_t>(i)] = x;
      power += static_cast<double>(x) * static_cast<double>(x);
    }
    power_[t] += power;
    if (t == kRef) continue;
    my_fft<kFft>(block.data(), spectrum.data());
    mic_[t].push_front(spectrum);
    add_power(&mic_power_, spectrum);
    if (mic_[t].size() > kFuture + 1) mic_[t].pop_back();
  }
  ++frames_;
  for (int m = 0; m < kMics; ++m) {
    add_cross(&pair_[m], mic_[kPairs[m][0]].front(), mic_[kPairs[m][1]].front());
    if (frames_ <= kFuture) continue;
    // The microphone is kFuture frames old: ref_[i] ends i - kFuture frames before it.
    for (size_t p = 0; p < ref_.size(); ++p) add_cross(&echo_[m][p], mic_[m].back(), ref_[p]);
  }
  if (++in_window_ == kWindow) close_window();
}

Peak EchoScan::strongest(const std::vector<Spectrum>& partitions, const std::vector<float>& power) {
  Peak best{0, 0};
  const std::vector<bool> filled = filled_bins(power);
  if (share(filled) < kFewestFilled) return best;
  for (size_t p = 0; p < partitions.size(); ++p) {
    const std::vector<float> c = phat(partitions[p], filled);
    for (int l = 0; l < QUIBO_FRAME; ++l) {
      const float value = c[static_cast<size_t>(l)];
      if (std::fabs(static_cast<double>(value)) <= std::fabs(best.height)) continue;
      const int before = (l + kFft - 1) % kFft, after = l + 1;
      const float left = c[static_cast<size_t>(before)], right = c[static_cast<size_t>(after)];
      best.lag = kEarliest + QUIBO_FRAME * static_cast<int>(p) + l + vertex(left, value, right);
      best.height = static_cast<double>(value);
    }
  }
  return best;
}

Peak EchoScan::strongest_pair(const Spectrum& spectrum, const std::vector<float>& power) {
  Peak best{0, 0};
  const std::vector<bool> filled = filled_bins(power);
  if (share(filled) < kFewestFilled) return best;
  const std::vector<float> c = phat(spectrum, filled);
  const auto at = [&](int lag) { return c[static_cast<size_t>((lag + kFft) % kFft)]; };
  for (int lag = -kPairLags; lag <= kPairLags; ++lag) {
    if (std::fabs(static_cast<double>(at(lag))) <= std::fabs(best.height)) continue;
    best = {lag + vertex(at(lag - 1), at(lag), at(lag + 1)), static_cast<double>(at(lag))};
  }
  return best;
}

void EchoScan::close_window() {
  EchoWindow window{};
  const double length = static_cast<double>(in_window_) * QUIBO_FRAME;
  window.seconds = (frames_ - 0.5 * in_window_) * QUIBO_FRAME / QUIBO_SAMPLE_RATE;
  for (int t = 0; t < kTracks; ++t)
    window.level[t] = static_cast<float>(power_db(power_[t] / length));
  window.plays = window.level[kRef] > kPlays;
  for (int m = 0; m < kMics; ++m) {
    if (window.plays) window.echo[m] = strongest(echo_[m], ref_power_);
    window.pair[m] = strongest_pair(pair_[m], mic_power_);
    std::fill(pair_[m].begin(), pair_[m].end(), 0.0f);
  }
  long_plays_ |= window.plays;
  for (size_t p = 0; p < long_echo_.size(); ++p) {
    for (size_t k = 0; k < long_echo_[p].size(); ++k) long_echo_[p][k] += echo_[0][p][k];
    for (auto& microphone : echo_) std::fill(microphone[p].begin(), microphone[p].end(), 0.0f);
  }
  for (size_t k = 0; k < kBins; ++k) long_ref_power_[k] += ref_power_[k];
  std::fill(ref_power_.begin(), ref_power_.end(), 0.0f);
  std::fill(mic_power_.begin(), mic_power_.end(), 0.0f);
  std::fill(std::begin(power_), std::end(power_), 0.0);
  windows_.push_back(window);
  in_window_ = 0;
  if (++windows_in_long_ == kLongWindow) close_long_window();
}

void EchoScan::close_long_window() {
  LongWindow window{};
  const double length = kWindow * static_cast<double>(QUIBO_FRAME) / QUIBO_SAMPLE_RATE;
  window.seconds = (static_cast<double>(windows_.size()) - 0.5 * windows_in_long_) * length;
  if (long_plays_) window.echo = strongest(long_echo_, long_ref_power_);
  long_windows_.push_back(window);
  for (Spectrum& spectrum : long_echo_) std::fill(spectrum.begin(), spectrum.end(), 0.0f);
  std::fill(long_ref_power_.begin(), long_ref_power_.end(), 0.0f);
  windows_in_long_ = 0;
  long_plays_ = false;
}

void EchoScan::finish() {
  if (in_window_ > kWindow / 2) close_window();
  if (windows_in_long_ > 0) close_long_window();
}

}  // namespace quibo::recordings
