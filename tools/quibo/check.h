// Is a recording fit for an echo canceller? Looks at samples in memory, block by block, and says
// what is wrong with them, how badly, and what to do about it.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "channels.h"
#include "quibo/quibo.h"

namespace quibo::recordings {

// Delays, in samples at 16 kHz, that the canceller's filter covers: the microphone is delayed by 20
// samples against 3 x 1024 taps.
constexpr int kReachFrom = -20, kReachTo = 3051;

enum class Severity { kNote, kWarning, kFault };

struct Finding {
  std::string id;  // "reference_late": stays the same from version to version
  Severity severity;
  std::string channel;  // "mic1" .. "ref"; empty: the recording
  double start, end;    // s, where; NaN: all of it
  std::string what, how_bad, advice;
};

struct ChannelState {
  double level;   // dBFS, RMS
  double peak;    // dBFS
  double floor;   // dBFS: what a tenth of the frames without playback stay below; NaN: always plays
  double offset;  // mean, full scale 1.0
  long long clipped;
};

struct DelayPoint {
  double seconds;     // middle of a window of five seconds
  double delay;       // s, of the echo after the reference
  double confidence;  // 0..1
};

struct CheckResult {
  std::vector<Finding> findings;  // the worst first
  ChannelState channels[kTracks];
  std::vector<DelayPoint> delay;
  double drift_ppm;  // NaN: not to be told
  double seconds;

  Severity worst() const;       // kNote where nothing was found
  const char* verdict() const;  // "fit", "look", "unfit"
};

const char* name_of(Severity severity);  // "note", "warning", "fault"

class Check {
 public:
  explicit Check(int rate);  // Hz, of what add_samples() gets
  ~Check();

  // The same tracks twice: as they were recorded, and as frames at 16 kHz.
  void add_samples(const float* const tracks[kTracks], int count);
  void add_frame(const int16_t track[kTracks][QUIBO_FRAME]);

  CheckResult finish();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace quibo::recordings
