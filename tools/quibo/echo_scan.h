// Where the loudspeaker's sound is in the microphones, and the microphones in each other: delays by
// generalised cross-correlation with phase transform (GCC-PHAT, Knapp & Carter 1976).
#pragma once

#include <complex>
#include <cstdint>
#include <deque>
#include <vector>

#include "channels.h"
#include "quibo/quibo.h"

namespace quibo::recordings {

// The strongest lag of a pair of signals.
struct Peak {
  double lag;     // samples; positive: the first signal is later
  double height;  // of a correlation whose largest value is 1; negative: of opposite polarity
};

// One second.
struct EchoWindow {
  double seconds;        // its middle
  float level[kTracks];  // dBFS
  bool plays;            // the reference is active
  Peak echo[kMics];      // each microphone after the reference; height 0: the reference is silent
  Peak pair[kMics];      // microphones (1, 2), (1, 3), (2, 3): the first after the second
};

class EchoScan {
 public:
  EchoScan();

  void add(const int16_t track[kTracks][QUIBO_FRAME]);
  void finish();

  const std::vector<EchoWindow>& windows() const { return windows_; }

  // Microphone 1 after the reference over windows of five seconds; height 0 where nothing plays.
  struct LongWindow {
    double seconds;
    Peak echo;
  };
  const std::vector<LongWindow>& long_windows() const { return long_windows_; }

  // Lags searched, in samples.
  static constexpr int kEarliest = -4 * QUIBO_FRAME, kLatest = 13 * QUIBO_FRAME;

 private:
  static constexpr int kFft = 2 * QUIBO_FRAME, kBins = QUIBO_FRAME + 1;
  static constexpr int kPartitions = (kLatest - kEarliest) / QUIBO_FRAME;
  static constexpr int kPairLags = 32;
  using Spectrum = std::vector<std::complex<float>>;

  void close_window();
  void close_long_window();
  static Peak strongest(const std::vector<Spectrum>& partitions, const std::vector<float>& power);
  static Peak strongest_pair(const Spectrum& spectrum, const std::vector<float>& power);

  std::vector<float> previous_ref_;
  std::deque<Spectrum> ref_;           // newest first
  std::deque<Spectrum> mic_[kMics];    // newest first; the oldest is the one that is compared
  std::vector<Spectrum> echo_[kMics];  // cross-spectra per partition of this second ...
  std::vector<Spectrum> long_echo_;    // ... and of microphone 1 in these five
  Spectrum pair_[kMics];
  std::vector<float> ref_power_, long_ref_power_, mic_power_;  // per bin, of the same times
  double power_[kTracks] = {};
  int frames_ = 0, in_window_ = 0, windows_in_long_ = 0;
  bool long_plays_ = false;
  std::vector<EchoWindow> windows_;
  std::vector<LongWindow> long_windows_;
};

}  // namespace quibo::recordings
