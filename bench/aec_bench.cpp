// Time per 64 ms frame and channel of the linear echo canceller, on every instruction set, and of
// speexdsp's canceller with the same frame and tail on the same signals.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "aec/aecpostapi.h"
#include "dsp/kernels.h"

#ifdef QUIBO_BENCH_SPEEXDSP
#include <speex/speex_echo.h>
#endif

namespace {

constexpr int kFrame = LAEC_SHIFT;
constexpr int kTail = LAEC_PARTITIONS * LAEC_SHIFT;
constexpr int kRate = 16000;

constexpr int kConvergeFrames = 256;  // 16 s
constexpr int kSpeechFrames = 64;     // then measured over and over
// The smoothed reference power of every bin has decayed into the denormal range after some 1750
// frames (112 s) of silence and stays there; these frames are measured.
constexpr int kSilenceBefore = 1800, kSilenceFrames = 250;

struct Signals {
  std::vector<int16_t> mic, ref;
};

// Loudspeaker: coloured noise that swells and fades at the rate of syllables. Microphone: that
// through a decaying echo path of 2000 taps, and a little noise.
Signals speech_and_echo(int frames) {
  std::mt19937 random(1);
  std::normal_distribution<float> normal;
  const int count = frames * kFrame;
  std::vector<float> ref(count);
  float low = 0.0f;
  for (int n = 0; n < count; ++n) {
    low = 0.9f * low + normal(random);
    ref[n] = 1500.0f * low * (0.55f + 0.45f * std::sin(6.2832f * 4.0f * n / kRate));
  }
  std::vector<float> path(2000);
  for (size_t j = 0; j < path.size(); ++j) path[j] = 0.05f * std::exp(-j / 400.0f) * normal(random);
  Signals s{std::vector<int16_t>(count), std::vector<int16_t>(count)};
  auto to_int16 = [](float x) { return static_cast<int16_t>(std::clamp(x, -32767.0f, 32767.0f)); };
  for (int n = 0; n < count; ++n) {
    float echo = 10.0f * normal(random);
    for (int j = 0; j < static_cast<int>(path.size()) && j <= n; ++j) echo += path[j] * ref[n - j];
    s.mic[n] = to_int16(echo);
    s.ref[n] = to_int16(ref[n]);
  }
  return s;
}

// One canceller behind the benchmark: run(mic, ref) processes a frame.
struct Ours {
  explicit Ours(const std::string& variant) {
    if (!variant.empty()) quibo::use_kernels(variant.c_str());
  }
  ~Ours() { kesto_Laec_Post_unit(handle); }
  void run(const int16_t* mic, const int16_t* ref) { kesto_Laec_Post_write(handle, mic, ref, out); }

  void* handle = kesto_Laec_Post_init();
  float out[kFrame];
};

#ifdef QUIBO_BENCH_SPEEXDSP
struct Speex {
  explicit Speex(const std::string&) {
    int rate = kRate;
    speex_echo_ctl(state, SPEEX_ECHO_SET_SAMPLING_RATE, &rate);
  }
  ~Speex() { speex_echo_state_destroy(state); }
  void run(const int16_t* mic, const int16_t* ref) {
    speex_echo_cancellation(state, mic, ref, out);
  }

  SpeexEchoState* state = speex_echo_state_init(kFrame, kTail);
  int16_t out[kFrame];
};
#endif

template <class Canceller>
void speech(benchmark::State& state, const Signals& s, const std::string& variant) {
  Canceller canceller(variant);
  int f = 0;
  for (; f < kConvergeFrames; ++f) canceller.run(&s.mic[f * kFrame], &s.ref[f * kFrame]);
  for (auto _ : state) {
    canceller.run(&s.mic[f * kFrame], &s.ref[f * kFrame]);
    if (++f == kConvergeFrames + kSpeechFrames) f = kConvergeFrames;
    benchmark::ClobberMemory();
  }
}

// Silence after speech. speexdsp's state cannot be set back, so the whole story is told again for
// every measured stretch; an iteration is one frame of it.
template <class Canceller>
void silence(benchmark::State& state, const Signals& s, const std::string& variant) {
  const std::vector<int16_t> zeros(kFrame);
  while (state.KeepRunningBatch(kSilenceFrames)) {
    state.PauseTiming();
    Canceller canceller(variant);
    for (int f = 0; f < kConvergeFrames; ++f) canceller.run(&s.mic[f * kFrame], &s.ref[f * kFrame]);
    for (int f = 0; f < kSilenceBefore; ++f) canceller.run(zeros.data(), zeros.data());
    state.ResumeTiming();
    for (int f = 0; f < kSilenceFrames; ++f) canceller.run(zeros.data(), zeros.data());
    benchmark::ClobberMemory();
  }
}

double smallest(const std::vector<double>& values) {
  return *std::min_element(values.begin(), values.end());
}

// Rows "speech/canceller" and "silence/canceller".
template <class Canceller>
void add_rows(const std::string& name, const Signals& s, const std::string& variant) {
  for (auto [what, body] :
       {std::pair{"speech/", speech<Canceller>}, std::pair{"silence/", silence<Canceller>}}) {
    benchmark::RegisterBenchmark(
        (what + name).c_str(),
        [&s, variant, body = body](benchmark::State& state) { body(state, s, variant); })
        ->Unit(benchmark::kMicrosecond)
        ->ComputeStatistics("min", smallest);
  }
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  const Signals s = speech_and_echo(kConvergeFrames + kSpeechFrames);
  add_rows<Ours>("quibo", s, quibo::kernels().name);
  for (int i = 0; const quibo::Kernels* k = quibo::available_kernels(i); ++i) {
    add_rows<Ours>(std::string("quibo:") + k->name, s, k->name);
  }
#ifdef QUIBO_BENCH_SPEEXDSP
  add_rows<Speex>("speexdsp", s, "");
#endif
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
