// A whole recording through a front end.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "frames.h"
#include "front_end.h"
#include "meters.h"

namespace quibo::recordings {

constexpr int kOutputs = kMics + 1;  // cancelled microphones 1, 2, 3 and the clean one
constexpr int kClean = kMics;
extern const char* const kOutputNames[kOutputs];  // "mic1", "mic2", "mic3", "clean"

struct RunOptions {
  bool raw_timing = false;  // leave the outputs as late as they are
  FrontEndOptions front_end;
};

// What a run tells while it goes on; functions may be empty.
struct RunCallbacks {
  // Samples of every output: lined up with the recording and as long as it, unless raw_timing.
  std::function<void(const int16_t* const outputs[kOutputs], int samples)> outputs;
  std::function<void(const Wake&)> wake;
  // Levels of a second that is complete, dBFS: tracks, then outputs.
  std::function<void(int second, const float levels[kTracks + kOutputs])> second;
  // What the front end heard and gave, as it came; for those who draw.
  std::function<void(const Frame&, const Output&)> frame;
  // Called once per frame; false ends the run early.
  std::function<bool(int64_t samples_done)> go_on;
};

struct RunResult {
  int64_t samples = 0;  // per track, at 16 kHz
  bool stopped = false;
  std::vector<Wake> wakes;
  std::vector<float> track_level[kTracks], track_peak[kTracks];  // per second, dBFS
  std::vector<float> output_level[kOutputs], output_peak[kOutputs];
  EchoReduction echo;
  double processor_seconds = 0;  // of this thread
};

// Plays the frames through a new front end. The last frame is filled up with silence, and silence
// follows it until the outputs are as long as the recording.
RunResult run(FrameReader& frames, const RunOptions& options, const RunCallbacks& callbacks);

}  // namespace quibo::recordings
