#include "run.h"

#include <time.h>

#include <algorithm>
#include <cstring>

namespace quibo::recordings {

const char* const kOutputNames[kOutputs] = {"mic1", "mic2", "mic3", "clean"};

namespace {

constexpr int kDelay[kOutputs] = {kCancelledDelay, kCancelledDelay, kCancelledDelay, kCleanDelay};

double processor_seconds() {
  timespec t;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

// Lines the outputs up and cuts them to the recording's length.
class Trimmer {
 public:
  Trimmer(bool raw_timing, const RunCallbacks& callbacks) : callbacks_(callbacks) {
    for (int o = 0; o < kOutputs; ++o) skip_[o] = raw_timing ? 0 : static_cast<size_t>(kDelay[o]);
    latest_ = raw_timing ? 0 : kCleanDelay;
  }

  int latest() const { return latest_; }

  void add(const Output& output) {
    for (int o = 0; o < kOutputs; ++o) {
      const int16_t* from = o == kClean ? output.clean : output.mic[o];
      const size_t skipped = std::min<size_t>(skip_[o], QUIBO_FRAME);
      skip_[o] -= skipped;
      pending_[o].insert(pending_[o].end(), from + skipped, from + QUIBO_FRAME);
    }
  }

  // Hands out what all outputs have, up to sample `limit` of the recording.
  void give(int64_t limit) {
    size_t ready = static_cast<size_t>(std::max<int64_t>(0, limit - given_));
    for (const auto& samples : pending_) ready = std::min(ready, samples.size());
    if (ready == 0) return;
    const int16_t* outputs[kOutputs];
    for (int o = 0; o < kOutputs; ++o) outputs[o] = pending_[o].data();
    for (int o = 0; o < kOutputs; ++o) meters_[o].add(outputs[o], static_cast<int>(ready));
    if (callbacks_.outputs) callbacks_.outputs(outputs, static_cast<int>(ready));
    for (auto& samples : pending_) {
      samples.erase(samples.begin(), samples.begin() + static_cast<std::ptrdiff_t>(ready));
    }
    given_ += static_cast<int64_t>(ready);
  }

  LevelMeter* meter(int output) { return &meters_[output]; }

 private:
  const RunCallbacks& callbacks_;
  size_t skip_[kOutputs];
  int latest_;
  std::vector<int16_t> pending_[kOutputs];
  LevelMeter meters_[kOutputs];
  int64_t given_ = 0;
};

}  // namespace

RunResult run(FrameReader& frames, const RunOptions& options, const RunCallbacks& callbacks) {
  const double start = processor_seconds();
  RunResult result;
  FrontEnd front_end(options.front_end);
  Trimmer trimmer(options.raw_timing, callbacks);
  LevelMeter track_meters[kTracks];
  EchoMeter echo_meter;
  Frame frame;
  Output output;
  size_t told = 0;  // seconds

  const auto tell_seconds = [&] {
    const auto known = [&] {
      size_t least = track_meters[0].level().size();
      for (int o = 0; o < kOutputs; ++o) least = std::min(least, trimmer.meter(o)->level().size());
      return least;
    };
    for (; told < known(); ++told) {
      float levels[kTracks + kOutputs];
      for (int t = 0; t < kTracks; ++t) levels[t] = track_meters[t].level()[told];
      for (int o = 0; o < kOutputs; ++o) levels[kTracks + o] = trimmer.meter(o)->level()[told];
      if (callbacks.second) callbacks.second(static_cast<int>(told), levels);
    }
  };
  const auto play = [&] {
    front_end.process(frame, &output);
    for (int t = 0; t < kTracks; ++t) track_meters[t].add(frame.track[t], frame.samples);
    if (frame.samples > 0) {
      echo_meter.add(output.mic_power, output.echo_power, output.shared_power, frame.samples);
    }
    if (callbacks.frame) callbacks.frame(frame, output);
    if (output.wake) {
      result.wakes.push_back(*output.wake);
      if (callbacks.wake) callbacks.wake(*output.wake);
    }
    trimmer.add(output);
  };

  while (!result.stopped && frames.next(&frame)) {
    result.samples += frame.samples;
    play();
    trimmer.give(result.samples);
    tell_seconds();
    result.stopped = callbacks.go_on && !callbacks.go_on(result.samples);
  }
  std::memset(&frame, 0, sizeof frame);
  for (int64_t played = (result.samples + QUIBO_FRAME - 1) / QUIBO_FRAME * QUIBO_FRAME;
       played < result.samples + trimmer.latest(); played += QUIBO_FRAME) {
    play();
  }
  trimmer.give(result.samples);
  for (LevelMeter& meter : track_meters) meter.finish();
  for (int o = 0; o < kOutputs; ++o) trimmer.meter(o)->finish();
  echo_meter.finish();
  tell_seconds();

  for (int t = 0; t < kTracks; ++t) {
    result.track_level[t] = track_meters[t].level();
    result.track_peak[t] = track_meters[t].peak();
  }
  for (int o = 0; o < kOutputs; ++o) {
    result.output_level[o] = trimmer.meter(o)->level();
    result.output_peak[o] = trimmer.meter(o)->peak();
  }
  result.echo = echo_reduction(result.track_level[0], result.track_level[kRef],
                               result.output_level[kClean], echo_meter.explained());
  result.processor_seconds = processor_seconds() - start;
  return result;
}

}  // namespace quibo::recordings
