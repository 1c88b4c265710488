// The calls of the WebAssembly module, one front end per instance: JavaScript writes a frame into the inputs, calls
// module_process() and reads the outputs.

#include <algorithm>
#include <optional>
#include <vector>

#include "dsp/kernels.h"
#include "tools/quibo/channels.h"
#include "tools/quibo/check.h"
#include "tools/quibo/front_end.h"
#include "tools/quibo/meters.h"
#include "tools/quibo/samples.h"

namespace {

using namespace quibo::recordings;

constexpr int kOutputs = kMics + 1;
constexpr int kMetered = kTracks + 1;  // and the clean output

// What is told of a recording as a whole. Each second of it takes memory: not for what never ends.
struct Meters {
  LevelMeter tracks[kTracks];
  LevelMeter clean{kCleanDelay};
  EchoMeter echo;
  EchoReduction reduction;
  std::vector<uint8_t> only_device;

  const LevelMeter& of(int i) const { return i < kTracks ? tracks[i] : clean; }
};

// A check of the recording, and what it found.
struct Checked {
  explicit Checked(int rate) : check(rate) {}

  Check check;
  CheckResult result;
};

Frame frame;
Output output;
int16_t recorded[kTracks][QUIBO_FRAME];
std::optional<FrontEnd> front_end;
std::optional<Meters> meters;
std::optional<Checked> checked;
std::vector<int16_t> guess;

}  // namespace

extern "C" {

// check_rate: Hz of what module_check_recorded() gets; 0: no check.
void module_create(int32_t measure, int32_t check_rate) {
  front_end.emplace();
  if (measure) meters.emplace();
  if (check_rate) checked.emplace(check_rate);
}

// microphones 1 to 3, reference
int16_t* module_input(int32_t track) {
  return frame.track[track];
}

// cancelled microphones 1 to 3, clean
const int16_t* module_output(int32_t i) {
  return i < kMics ? output.mic[i] : output.clean;
}

// One frame, of which `samples` are the recording's; scrambled microphones are decoded in place.
void module_process(int32_t scrambled, int32_t samples) {
  if (scrambled) {
    for (int mic = 0; mic < kMics; ++mic) dec_data(frame.track[mic], QUIBO_FRAME);
  }
  frame.samples = samples;
  front_end->process(frame, &output);
  if (checked && samples == QUIBO_FRAME) checked->check.add_frame(frame.track);
  if (!meters) return;
  for (int t = 0; t < kTracks; ++t) meters->tracks[t].add(frame.track[t], samples);
  meters->clean.add(output.clean, QUIBO_FRAME);
  if (samples > 0) {
    meters->echo.add(output.mic_power, output.echo_power, output.shared_power, samples);
  }
}

// Of the last frame: 1 where the wake phrase was heard. The other calls then tell of that wake.
int32_t module_woke() {
  return output.wake.has_value();
}

int32_t module_angle() {  // degrees; -1: none was given
  return output.wake->angle;
}

double module_wake_value(int32_t i) {  // start and end in s, cost, length of the angle's vector
  const Wake& wake = *output.wake;
  const double values[] = {wake.start, wake.end, wake.cost, wake.angle_length};
  return values[i];
}

// After the last frame: how many seconds the meters hold.
int32_t module_finish() {
  for (LevelMeter& meter : meters->tracks) meter.finish();
  meters->clean.finish();
  meters->echo.finish();
  meters->reduction = echo_reduction(meters->of(0).level(), meters->of(kRef).level(),
                                     meters->clean.level(), meters->echo.explained());
  const std::vector<bool>& only = meters->reduction.only_device;
  meters->only_device.assign(only.begin(), only.end());
  return static_cast<int32_t>(only.size());
}

// Values per second: levels of the tracks and of the clean output (0 to 4), their peaks (5 to 9), the
// echo reduction (10).
const float* module_meter(int32_t i) {
  if (i < kMetered) return meters->of(i).level().data();
  if (i < 2 * kMetered) return meters->of(i - kMetered).peak().data();
  return meters->reduction.per_second.data();
}

const uint8_t* module_only_device() {
  return meters->only_device.data();
}

float module_median_reduction() {  // NaN: the device never played alone
  return meters->reduction.median;
}

// Tracks as they were recorded, at a rate of their own, a piece of up to QUIBO_FRAME samples at a time.
int16_t* module_recorded(int32_t track) {
  return recorded[track];
}

void module_check_recorded(int32_t scrambled, int32_t count) {
  float samples[kTracks][QUIBO_FRAME];
  const float* tracks[kTracks];
  for (int t = 0; t < kTracks; ++t) {
    if (scrambled && t != kRef) dec_data(recorded[t], count);
    std::transform(recorded[t], recorded[t] + count, samples[t], to_float);
    tracks[t] = samples[t];
  }
  checked->check.add_samples(tracks, count);
}

// After the last frame: how many findings there are.
int32_t module_check_finish() {
  checked->result = checked->check.finish();
  return static_cast<int32_t>(checked->result.findings.size());
}

const char* module_verdict() {
  return checked->result.verdict();
}

// A finding's id, severity, channel, what, how bad, advice: C strings.
const char* module_finding_text(int32_t i, int32_t part) {
  const Finding& finding = checked->result.findings[static_cast<size_t>(i)];
  const char* const parts[] = {finding.id.c_str(),      name_of(finding.severity),
                               finding.channel.c_str(), finding.what.c_str(),
                               finding.how_bad.c_str(), finding.advice.c_str()};
  return parts[part];
}

double module_finding_time(int32_t i, int32_t end) {  // s; NaN: all of the recording
  const Finding& finding = checked->result.findings[static_cast<size_t>(i)];
  return end ? finding.end : finding.start;
}

double module_channel_state(int32_t track, int32_t i) {
  const ChannelState& state = checked->result.channels[track];
  const double values[] = {state.level, state.peak, state.floor, state.offset,
                           static_cast<double>(state.clipped)};
  return values[i];
}

// The reference's delay: how many points, and of each its time, the delay and how sure it is.
int32_t module_delay_points() {
  return static_cast<int32_t>(checked->result.delay.size());
}

double module_delay_point(int32_t point, int32_t i) {
  const DelayPoint& at = checked->result.delay[static_cast<size_t>(point)];
  const double values[] = {at.seconds, at.delay, at.confidence};
  return values[i];
}

double module_delay_reach(int32_t end) {  // s that the canceller's filter covers
  return static_cast<double>(end ? kReachTo : kReachFrom) / QUIBO_SAMPLE_RATE;
}

double module_drift() {  // ppm; NaN: not to be told
  return checked->result.drift_ppm;
}

// Room for `count` samples of a microphone, of which module_scrambled() then says whether they are in the
// codec's encoding: 1, 0, or -1 where that is not to be told.
int16_t* module_guess(int32_t count) {
  guess.resize(static_cast<size_t>(count));
  return guess.data();
}

int32_t module_scrambled() {
  const std::optional<bool> answer = looks_scrambled(guess);
  return answer ? *answer : -1;
}

// The instruction set in use, a C string.
const char* module_kernels() {
  return quibo::kernels().name;
}

}  // extern "C"
