// The guarded canceller against tones: no output stays louder than the microphone, nothing is ever a
// NaN, and speech-like echo is cancelled again when the tone ends.
//
// The quick set runs with every test run; QUIBO_TONE_CASES=N in the environment runs N cases instead,
// and prints a table of what the canceller does without and with its guard.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "aec/aecpostapi.h"

namespace {

using Samples = std::vector<int16_t>;

constexpr unsigned kSeed = 20251103;
constexpr int kShift = LAEC_SHIFT, kRate = 16000;
constexpr int kQuickCases = 24, kFrames = 40 * kRate / kShift;
constexpr double kLouder = 3.98;          // 6 dB
constexpr int kLongestLoud = 4;           // frames: 0.256 s; a fifth would be 0.32 s
constexpr double kFloor = kShift * 1e-7;  // -70 dBFS: nothing below it is loud

enum Kind { kSine, kSquare, kTriangle, kSaw, kTwoTones, kChirp, kDtmf, kOneInThree, kKinds };
constexpr const char* kNames[] = {"sine",      "square", "triangle", "sawtooth",
                                  "two tones", "chirp",  "DTMF",     "one frame in three"};

struct Case {
  Kind kind;
  std::string text;
  Samples mic, ref;
};

double uniform(std::mt19937& random, double low, double high) {
  return low + (high - low) * (random() / 4294967296.0);
}

double wave(Kind kind, double phase) {
  const double turn = phase - std::floor(phase);
  switch (kind) {
    case kSquare:
    case kOneInThree:
      return turn < 0.5 ? 1 : -1;
    case kTriangle:
      return 4 * std::abs(turn - 0.5) - 1;
    case kSaw:
      return 2 * turn - 1;
    default:
      return std::sin(2 * M_PI * turn);
  }
}

// Echo over a decaying path of 60 ms behind a delay; none for a gain of 0.
std::vector<double> echo_of(std::mt19937& random, const std::vector<double>& ref, double gain) {
  constexpr int kTaps = 48;
  std::vector<double> echo(ref.size());
  const int delay = 20 + static_cast<int>(random() % 700);
  for (int tap = 0; tap < kTaps; ++tap) {
    const int at = delay + static_cast<int>(random() % 1000);
    const double weight = gain * uniform(random, -1, 1) * std::exp(-(at - delay) / 250.0) / 3;
    for (size_t n = at; n < ref.size(); ++n) echo[n] += weight * ref[n - at];
  }
  return echo;
}

int16_t sample(double x) {
  return static_cast<int16_t>(std::min(std::max(x, -1.0), 0.9999) * 32768);
}

// Every draw is made in every case, so that one parameter does not move the others.
Case make_case(int number, int frames) {
  std::mt19937 random(kSeed + static_cast<unsigned>(number));
  Case c;
  c.kind = static_cast<Kind>(random() % kKinds);
  double frequency = 150 * std::pow(50.0, uniform(random, 0, 1));
  if (random() % 2) frequency = std::round(frequency / 100) * 100;
  const double second = 150 * std::pow(50.0, uniform(random, 0, 1));
  const double level = std::pow(10, uniform(random, -26, 0) / 20);
  const double on = uniform(random, 0.1, 2), off = uniform(random, 0.1, 1);
  const bool gated = random() % 3 == 0 && c.kind <= kTwoTones;
  const double period = uniform(random, 0.1, 5);
  constexpr double kEchoes[] = {0, 0.03, 0.1, 0.3, 1};
  const double echo = kEchoes[random() % 5];
  const double hiss = std::pow(10, uniform(random, -90, -50) / 20);
  const double added = random() % 4 ? 0 : std::pow(10, uniform(random, -80, -40) / 20);
  constexpr double kRows[] = {697, 770, 852, 941}, kColumns[] = {1209, 1336, 1477, 1633};

  std::vector<double> x(static_cast<size_t>(frames) * kShift);
  std::normal_distribution<double> normal;
  double phase = 0, row = 0, column = 0;
  for (size_t n = 0; n < x.size(); ++n) {
    const double t = static_cast<double>(n) / kRate;
    if (c.kind == kTwoTones) {
      x[n] = (std::sin(2 * M_PI * frequency * t) + std::sin(2 * M_PI * second * t)) / 2;
    } else if (c.kind == kDtmf) {
      if (n % 3200 == 0) row = kRows[random() % 4], column = kColumns[random() % 4];
      x[n] = n % 3200 < 1600 ? (std::sin(2 * M_PI * row * t) + std::sin(2 * M_PI * column * t)) / 2
                             : 0;
    } else {
      const double sweep = c.kind == kChirp ? (second - frequency) * std::fmod(t / period, 1.0) : 0;
      phase += (frequency + sweep) / kRate;
      x[n] = wave(c.kind, phase);
    }
    if (c.kind == kOneInThree && n / kShift % 3 != 0) x[n] = 0;
    if (gated && std::fmod(t, on + off) > on) x[n] = 0;
    x[n] = level * x[n] + added * normal(random);
  }
  const std::vector<double> y = echo_of(random, x, echo);
  for (size_t n = 0; n < x.size(); ++n) {
    c.ref.push_back(sample(x[n]));
    c.mic.push_back(sample(y[n] + hiss * normal(random)));
  }
  char text[160];
  std::snprintf(text, sizeof text, "case %d: %s, %.0f Hz, %.1f dBFS, echo %.2f%s, seed %u", number,
                kNames[c.kind], frequency, 20 * std::log10(level), echo, gated ? ", gated" : "",
                kSeed);
  c.text = text;
  return c;
}

double energy(const float* x) {
  double sum = 0;
  for (int n = 0; n < kShift; ++n) sum += static_cast<double>(x[n]) * x[n];
  return sum;
}

struct Seen {
  bool finite = true;
  int loud = 0, run = 0, longest = 0, restarts = 0;

  void add(const float* mic, const float* out, const float* yn) {
    const double e = energy(out);
    finite = finite && std::isfinite(e) && std::isfinite(energy(yn));
    const bool louder = !(e <= kLouder * energy(mic) + kFloor);
    loud += louder;
    run = louder ? run + 1 : 0;
    longest = std::max(longest, run);
  }
};

Seen with_guard(const Case& c) {
  Seen seen;
  void* handle = kesto_Laec_Post_init();
  std::array<float, kShift> out;
  for (size_t n = 0; n < c.ref.size(); n += kShift) {
    kesto_Laec_Post_write(handle, &c.mic[n], &c.ref[n], out.data());
    seen.add(kesto_laec_micdata(handle), out.data(), kesto_laec_yn(handle));
  }
  seen.restarts = kesto_laec_restarts(handle);
  kesto_Laec_Post_unit(handle);
  return seen;
}

Seen without_guard(const Case& c) {
  Seen seen;
  auto st = std::make_unique<LAEC>();
  init_laec(st.get());
  std::array<float, kShift> mic, ref, out;
  for (size_t n = 0; n < c.ref.size(); n += kShift) {
    for (int i = 0; i < kShift; ++i) {
      mic[i] = c.mic[n + i] / 32768.0f;
      ref[i] = c.ref[n + i] / 32768.0f;
    }
    linear_aec_proc(st.get(), mic.data(), ref.data(), out.data());
    seen.add(st->micdata, out.data(), st->yn);
  }
  return seen;
}

struct Row {
  int cases = 0, nan = 0, loud_cases = 0, loud_frames = 0, longest = 0, restarted = 0, again = 0;

  void add(const Seen& seen) {
    ++cases;
    nan += !seen.finite;
    loud_cases += seen.longest > kLongestLoud;
    loud_frames += seen.loud;
    longest = std::max(longest, seen.longest);
    restarted += seen.restarts > 0;
    again += seen.restarts > 1;
  }
};

TEST(ToneGrid, NoToneMakesTheOutputLouderThanTheMicrophoneFor0Point3sOrNotANumber) {
  const char* wanted = std::getenv("QUIBO_TONE_CASES");
  const int cases = wanted ? std::atoi(wanted) : kQuickCases;
  Row before[kKinds], after[kKinds];
  for (int number = 0; number < cases; ++number) {
    const Case c = make_case(number, kFrames);
    const Seen seen = with_guard(c);
    EXPECT_TRUE(seen.finite) << c.text;
    EXPECT_LE(seen.longest, kLongestLoud) << c.text;
    after[c.kind].add(seen);
    if (wanted) before[c.kind].add(without_guard(c));
  }
  if (!wanted) return;
  std::printf("%-20s %6s | without: %4s %6s %8s | with: %4s %6s %8s %9s %6s\n", "", "cases", "NaN",
              "louder", "longest", "NaN", "louder", "longest", "restarted", "again");
  for (int kind = 0; kind < kKinds; ++kind) {
    const Row &b = before[kind], &a = after[kind];
    std::printf("%-20s %6d | %13d %6d %6.1f s | %10d %6d %6.2f s %9d %6d\n", kNames[kind], a.cases,
                b.nan, b.loud_cases, b.longest * 0.064, a.nan, a.loud_cases, a.longest * 0.064,
                a.restarted, a.again);
  }
}

// Noise of a speech-like slope in syllables: what the canceller takes off the microphone in the sixth
// second after fifteen seconds of a tone that makes it start anew, beside what it takes off after
// fifteen seconds of noise. Before, the echo comes over another path, as after somebody has moved.
TEST(ToneGrid, EchoReduction5sAfterAToneIsWithin1dBOfThatAfterNoise) {
  constexpr double kBar = 1.0;  // dB
  constexpr int kBefore = 15 * kRate / kShift, kTalk = 6 * kRate / kShift;
  std::mt19937 random(kSeed);
  std::normal_distribution<double> normal;
  std::vector<double> x(static_cast<size_t>(kBefore + kTalk) * kShift);
  double slope = 0;
  for (size_t n = 0; n < x.size(); ++n) {
    slope = 0.9 * slope + normal(random);
    x[n] =
        n < kBefore * kShift ? 0.1 * normal(random) : 0.05 * slope * (n / 1600 % 5 < 3 ? 1 : 0.1);
  }
  for (const double frequency : {1400.0, 2800.0}) {
    double reduction[2];
    for (const bool toned : {false, true}) {
      std::vector<double> played = x;
      for (int n = 0; toned && n < kBefore * kShift; ++n) {
        played[n] = 0.5 * wave(kSquare, n * frequency / kRate);
      }
      std::vector<double> before = played, after = played;
      std::fill(before.begin() + kBefore * kShift, before.end(), 0.0);
      std::fill(after.begin(), after.begin() + kBefore * kShift, 0.0);
      std::mt19937 path(kSeed + 1);
      std::vector<double> y = echo_of(path, before, 0.5);
      const std::vector<double> later = echo_of(path, after, 0.5);
      for (size_t n = 0; n < y.size(); ++n) y[n] += later[n];
      void* handle = kesto_Laec_Post_init();
      std::array<float, kShift> out;
      double heard = 0, left = 0;
      for (size_t n = 0; n < played.size(); n += kShift) {
        Samples mic, ref;
        for (int i = 0; i < kShift; ++i) {
          ref.push_back(sample(played[n + i]));
          mic.push_back(sample(y[n + i]));
        }
        kesto_Laec_Post_write(handle, mic.data(), ref.data(), out.data());
        if (n / kShift < kBefore + 5 * kRate / kShift) continue;
        heard += energy(kesto_laec_micdata(handle));
        left += energy(out.data());
      }
      reduction[toned] = 10 * std::log10(heard / left);
      if (toned) {
        EXPECT_GE(kesto_laec_restarts(handle), 1) << frequency << ": the tone does no harm";
      }
      kesto_Laec_Post_unit(handle);
    }
    EXPECT_GT(reduction[0], 10.0) << frequency;
    EXPECT_GT(reduction[1], reduction[0] - kBar) << frequency << ", seed " << kSeed;
  }
}

}  // namespace
