#include "check.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>

#include "echo_scan.h"
#include "level_scan.h"
#include "sample_scan.h"
#include "samples.h"

namespace quibo::recordings {

namespace {

constexpr double kMs = 1000.0 / QUIBO_SAMPLE_RATE;  // per sample
constexpr Span kEverywhere = {NAN, NAN};

// Heights of a correlation peak from which a delay is believed: noise of the lags searched stays
// below 0.12.
constexpr double kBelieved = 0.2;

__attribute__((format(printf, 1, 2))) std::string text(const char* format, ...) {
  char line[400];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(line, sizeof line, format, arguments);  // NOLINT(clang-analyzer-valist.Uninitialized)
  va_end(arguments);
  return line;
}

double median(std::vector<double> values) {
  if (values.empty()) return NAN;
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

const char* long_name(int track) {
  constexpr const char* kNames[kTracks] = {"microphone 1", "microphone 2", "microphone 3",
                                           "the reference"};
  return kNames[track];
}

std::string capital(std::string words) {
  words[0] = static_cast<char>(std::toupper(words[0]));
  return words;
}

struct Point {
  double seconds, lag;
};

std::string counted(size_t count, const char* one, const char* many) {
  return std::to_string(count) + " " + (count == 1 ? one : many);
}

// The delay that windows agree on, each with the one before it, as they do in spite of drift and a
// jump; NaN: they do not.
double agreed(const std::vector<double>& lags) {
  constexpr double kAlike = 32, kLeast = 0.5;  // samples, share
  size_t alike = 0;
  for (size_t i = 1; i < lags.size(); ++i) alike += std::fabs(lags[i] - lags[i - 1]) < kAlike;
  if (lags.empty() || static_cast<double>(alike) < kLeast * static_cast<double>(lags.size() - 1))
    return NAN;
  return median(lags);
}

}  // namespace

const char* name_of(Severity severity) {
  constexpr const char* kNames[] = {"note", "warning", "fault"};
  return kNames[static_cast<int>(severity)];
}

const char* CheckResult::verdict() const {
  constexpr const char* kVerdicts[] = {"fit", "look", "unfit"};
  return kVerdicts[static_cast<int>(worst())];
}

Severity CheckResult::worst() const {
  Severity worst = Severity::kNote;
  for (const Finding& finding : findings) worst = std::max(worst, finding.severity);
  return worst;
}

struct Check::State {
  explicit State(int rate) {
    for (int t = 0; t < kTracks; ++t) samples.emplace_back(rate, t != kRef);
  }

  std::vector<SampleScan> samples;
  LevelScan levels;
  EchoScan echo;
  CheckResult result{};

  void say(const char* id, Severity severity, int track, Span where, const std::string& what,
           const std::string& how_bad, const std::string& advice) {
    result.findings.push_back({id, severity, track < 0 ? "" : kTrackNames[track], where.start,
                               where.end, what, how_bad, advice});
  }

  bool dead(int track) const { return levels.quantile(track, 0.95) <= -90; }

  void look_at_channels();
  void look_for_lost_blocks();
  void look_at_array();
  bool look_for_wrong_channels();
  bool look_at_reference();
  void look_at_delay(bool reference_is_clean);
  void look_for_drift_and_jumps(std::vector<Point> points);
  void take_out_jumps(std::vector<Point>* points);
  void look_at_rate();
};

Check::Check(int rate) : state_(new State(rate)) {}
Check::~Check() = default;

void Check::add_samples(const float* const tracks[kTracks], int count) {
  for (size_t t = 0; t < kTracks; ++t) state_->samples[t].add(tracks[t], count);
}

void Check::add_frame(const int16_t track[kTracks][QUIBO_FRAME]) {
  state_->levels.add(track);
  state_->echo.add(track);
}

void Check::State::look_at_channels() {
  for (int t = 0; t < kTracks; ++t) {
    const SampleScan& scan = samples[static_cast<size_t>(t)];
    ChannelState& state = result.channels[t];
    const double peak = static_cast<double>(scan.peak());
    state = {levels.level(t), power_db(peak * peak), levels.floor(t), scan.mean(), scan.clipped()};
    if (dead(t)) {
      if (t != kRef) {
        say("dead_microphone", Severity::kFault, t, kEverywhere, capital(long_name(t)) + " is dead",
            text("it never rises above %.0f dBFS", levels.quantile(t, 1.0)),
            "Look at the wiring, the codec's channel map and --channels");
      }
      continue;
    }
    const bool flat = scan.clipped() == 0 && scan.flat() >= 50;
    if (scan.clipped() >= 3 || flat) {
      const long long count = flat ? scan.flat() : scan.clipped();
      say("clipping", count >= 100 ? Severity::kFault : Severity::kWarning, t, scan.clipped_span(),
          capital(long_name(t)) + " is clipped" + (flat ? " before it was stored" : ""),
          text("%lld samples at %s%.1f dBFS", count, flat ? "flat tops of " : "", state.peak),
          t == kRef
              ? "Play more quietly, or take the reference behind the volume control with headroom"
              : "Lower the microphone gain: the loudest echo should peak below -6 dBFS");
    } else if (peak > 0.95) {
      say("near_clipping", Severity::kNote, t, kEverywhere,
          capital(long_name(t)) + " comes close to clipping",
          text("its peak is %.1f dBFS", state.peak), "Leave a few decibels of headroom");
    }
    if (std::fabs(scan.mean()) > 0.005) {
      say("dc_offset", Severity::kWarning, t, kEverywhere, capital(long_name(t)) + " has an offset",
          text("its mean is %.1f %% of full scale", 100 * scan.mean()),
          "Switch on the codec's high-pass filter, or subtract the mean");
    }
    if (t == kRef) continue;
    if (levels.quantile(t, 0.95) < -60) {
      say("too_quiet", Severity::kWarning, t, kEverywhere, capital(long_name(t)) + " is very quiet",
          text("19 of 20 frames are below %.0f dBFS", levels.quantile(t, 0.95)),
          "Raise the microphone gain");
    }
    if (state.floor > -40) {
      say("noise_floor", Severity::kWarning, t, kEverywhere, capital(long_name(t)) + " is noisy",
          text("with nothing playing it is never below %.0f dBFS", state.floor),
          "Look for fan, supply or gain noise; record in a quieter place to compare");
    }
  }
}

void Check::State::look_for_lost_blocks() {
  for (int t = 0; t < kTracks; ++t) {
    const SampleScan& scan = samples[static_cast<size_t>(t)];
    const auto told = [&](const char* id, const std::vector<Span>& spans, const char* what,
                          const char* one, const char* many) {
      if (spans.empty()) return;
      double longest = 0;
      for (const Span& span : spans) longest = std::max(longest, span.end - span.start);
      say(id, Severity::kFault, t, {spans.front().start, spans.back().end},
          capital(long_name(t)) + what,
          text("%s, the longest of %.1f ms, the first at %.2f s",
               counted(spans.size(), one, many).c_str(), 1000 * longest, spans.front().start),
          "The capture lost or repeated a buffer: raise its priority or its buffer size");
    };
    told("dropout", scan.zero_blocks(), " drops out", "gap of silence", "gaps of silence");
    told("repeated_block", scan.repeated_blocks(), " repeats itself",
         "block that is its predecessor", "blocks that are their predecessor");
  }
}

// A microphone that is the reference, or the same as another; the rest makes no sense then.
bool Check::State::look_for_wrong_channels() {
  constexpr double kSame = -30;  // dB
  bool wrong = false;
  for (int a = 0; a < kTracks; ++a) {
    for (int b = a + 1; b < kTracks; ++b) {
      if (dead(a) || dead(b) || levels.distance(a, b) > kSame) continue;
      wrong = true;
      if (b == kRef) {
        say("reference_is_microphone", Severity::kFault, kRef, kEverywhere,
            text("The reference is %s", long_name(a)),
            text("they differ by %.0f dB only", levels.distance(a, b)),
            "Record what is sent to the loudspeaker as the reference; look at --channels");
      } else {
        say("duplicate_microphone", Severity::kFault, b, kEverywhere,
            text("%s is %s", capital(long_name(b)).c_str(), long_name(a)),
            text("they differ by %.0f dB only", levels.distance(a, b)),
            "Look at the codec's channel map: one microphone is recorded twice");
      }
    }
  }
  if (wrong) return true;
  // Swapped with the reference: what is called a microphone is digitally silent when nothing plays,
  // and comes before what the others hear.
  for (int m = 0; m < kMics; ++m) {
    std::vector<double> own, others;
    for (const EchoWindow& window : echo.windows()) {
      for (int k = 0; k < kMics; ++k) {
        if (std::fabs(window.echo[k].height) > kBelieved)
          (k == m ? own : others).push_back(window.echo[k].lag);
      }
    }
    const bool leads = own.size() >= 3 && others.size() >= 3 && median(own) < -2.5 &&
                       median(others) - median(own) > 2.5 && std::fabs(median(others)) < 6;
    const bool silent = !dead(m) && levels.silent_alone(m) > 15 && levels.silent_alone(kRef) == 0;
    if (!leads && !silent) continue;
    say("swapped_with_reference", Severity::kFault, m, kEverywhere,
        capital(long_name(m)) + " and the reference are swapped",
        leads
            ? text("%s comes %.1f ms before the reference", long_name(m), -median(own) * kMs)
            : text("%s is digitally silent for %.1f s in which the reference is not", long_name(m),
                   static_cast<double>(levels.silent_alone(m)) * QUIBO_FRAME / QUIBO_SAMPLE_RATE),
        "Correct --channels, or the channel map of the capture");
    return true;
  }
  return false;
}

void Check::State::look_at_array() {
  // Levels.
  std::vector<int> alive;
  for (int m = 0; m < kMics; ++m) {
    if (!dead(m)) alive.push_back(m);
  }
  if (alive.size() >= 2) {
    const auto by_level = [&](int a, int b) { return levels.level(a) < levels.level(b); };
    const int quiet = *std::min_element(alive.begin(), alive.end(), by_level);
    const int loud = *std::max_element(alive.begin(), alive.end(), by_level);
    const double spread = levels.level(loud) - levels.level(quiet);
    if (spread > 4) {
      say("level_spread", spread > 12 ? Severity::kFault : Severity::kWarning, quiet, kEverywhere,
          "The microphones are not equally loud",
          text("%s is %.1f dB below %s", long_name(quiet), spread, long_name(loud)),
          "Look for a covered port, a wrong gain or a bad capsule; 3 dB are usual");
    }
  }
  // Polarity: each pair votes in every window where it is sure.
  constexpr double kSure = 0.3;
  constexpr int kPairs[kMics][2] = {{0, 1}, {0, 2}, {1, 2}};
  int votes[kMics] = {}, count[kMics] = {};
  std::vector<double> wide;
  for (const EchoWindow& window : echo.windows()) {
    for (int p = 0; p < kMics; ++p) {
      if (std::fabs(window.pair[p].height) < kSure) continue;
      votes[p] += window.pair[p].height > 0 ? 1 : -1;
      ++count[p];
      wide.push_back(std::fabs(window.pair[p].lag));
    }
  }
  for (int m = 0; m < kMics; ++m) {
    bool against = true, others_agree = true;
    for (int p = 0; p < kMics; ++p) {
      const bool mine = kPairs[p][0] == m || kPairs[p][1] == m;
      if (mine) against &= count[p] >= 2 && votes[p] < -count[p] / 2;
      if (!mine) others_agree &= votes[p] > 0;
    }
    if (!against || !others_agree) continue;
    say("inverted_microphone", Severity::kFault, m, kEverywhere,
        capital(long_name(m)) + " has the opposite polarity of the others",
        text("it is inverted against both in %d of %d windows", -votes[m == 2 ? 1 : 0],
             count[m == 2 ? 1 : 0]),
        "Swap the wires of its differential input, or invert it in the capture");
  }
  // Delays no sound has over the array's 86.6 mm, 4.04 samples.
  constexpr double kWidest = 6;
  const auto beyond =
      std::count_if(wide.begin(), wide.end(), [](double lag) { return lag > kWidest; });
  if (beyond >= 3 && static_cast<double>(beyond) > 0.05 * static_cast<double>(wide.size())) {
    say("array_too_wide", Severity::kWarning, -1, kEverywhere,
        "Sound takes longer from microphone to microphone than 86.6 mm allow",
        text("up to %.1f samples in place of 4", *std::max_element(wide.begin(), wide.end())),
        "Angles will be wrong: a wider array, microphones out of step, or samples of a higher rate "
        "sold as 16 kHz");
  }
}

void Check::State::look_at_rate() {
  for (int t = 0; t < kTracks; ++t) {
    const double edge = dead(t) ? 0 : levels.band_edge(t);
    if (edge == 0) continue;
    const bool thrice = std::fabs(edge - 8000.0 / 3) < 250;
    say("wrong_rate", thrice ? Severity::kFault : Severity::kWarning, t, kEverywhere,
        capital(long_name(t)) + text(" holds nothing above %.1f kHz", edge / 1000),
        thrice ? "as speech of 8 kHz bandwidth does when 48 kHz are taken for 16 kHz"
               : text("as a recording of %.0f kHz does", 2 * edge / 1000),
        thrice ? "Correct the rate in the file's header, or convert the recording to 16 kHz"
               : "Record at 16 kHz or more: the networks hear up to 8 kHz");
    break;
  }
}

// False where the rest makes no sense.
bool Check::State::look_at_reference() {
  if (levels.playing() == 0) {
    say("silent_reference", Severity::kFault, kRef, kEverywhere, "The reference is silent",
        text("it never rises above %.0f dBFS", levels.quantile(kRef, 1.0)),
        "Without what the loudspeaker plays no echo goes away: look at the loopback and at "
        "--channels");
    return false;
  }
  // What the microphones hear, and louder than the reference has it, without any delay.
  int carried = 0;
  double first = NAN, last = NAN, louder = 0;
  for (const EchoWindow& window : echo.windows()) {
    const float mic = *std::max_element(window.level, window.level + kMics);
    for (int m = 0; m < kMics; ++m) {
      const Peak& peak = window.echo[m];
      if (peak.height < 0.5 || std::fabs(peak.lag) > 2.5 || mic < window.level[kRef] + 3) continue;
      if (std::isnan(first)) first = window.seconds;
      last = window.seconds;
      louder = std::max(louder, static_cast<double>(mic - window.level[kRef]));
      ++carried;
      break;
    }
  }
  if (carried >= 2) {
    say("reference_carries_microphones", Severity::kFault, kRef, {first, last},
        "The reference carries the microphones",
        text("in %d s it holds what the microphones hear, at the same instant and %.0f dB lower",
             carried, louder),
        "The talker is cancelled with the echo: keep the microphones out of the loopback "
        "(sidetone, mixer, ground)");
  }
  return carried < 2;
}

void Check::State::look_at_delay(bool reference_is_clean) {
  std::vector<double> lags;
  int active = 0, signs = 0;
  for (const EchoScan::LongWindow& window : echo.long_windows()) {
    if (window.echo.height == 0) continue;
    ++active;
    result.delay.push_back(
        {window.seconds, window.echo.lag * kMs / 1000, std::fabs(window.echo.height)});
    if (std::fabs(window.echo.height) > kBelieved) lags.push_back(window.echo.lag);
  }
  std::vector<Point> points;
  for (const EchoWindow& window : echo.windows()) {
    if (std::fabs(window.echo[0].height) < kBelieved) continue;
    points.push_back({window.seconds, window.echo[0].lag});
    for (const Peak& peak : window.echo) signs += peak.height > 0 ? 1 : -1;
  }
  const double lag = agreed(lags);
  if (std::isnan(lag)) {
    if (active > 0 && !dead(0)) {
      say("no_echo", Severity::kFault, kRef, kEverywhere,
          "The microphones hold no echo of the reference",
          text("nothing alike from %.0f ms before it to %.0f ms after it",
               -EchoScan::kEarliest * kMs, EchoScan::kLatest * kMs),
          "The reference is not what is played, the loudspeaker is off, or the two run at "
          "different sample rates");
    }
    return;
  }
  if (lag < kReachFrom) {
    say("reference_late", Severity::kFault, kRef, kEverywhere,
        text("The reference comes %.2f ms after its echo", -lag * kMs),
        text("%.2f ms beyond the canceller's reach of %.2f ms", (kReachFrom - lag) * kMs,
             -kReachFrom * kMs),
        text("Delay the microphones by %.0f ms or more, or take the reference earlier",
             std::ceil(-lag * kMs + 1)));
  } else if (lag > kReachTo) {
    say("reference_early", Severity::kFault, kRef, kEverywhere,
        text("The echo comes %.1f ms after the reference", lag * kMs),
        text("%.1f ms beyond the canceller's reach of %.1f ms", (lag - kReachTo) * kMs,
             kReachTo * kMs),
        text("Delay the reference by about %.0f ms", std::floor(lag * kMs - 5)));
  } else if (kReachTo - lag < 1600) {
    say("short_reach", Severity::kWarning, kRef, kEverywhere,
        text("The echo comes %.1f ms after the reference", lag * kMs),
        text("%.0f ms are left of the canceller's reach for the room's reverberation",
             (kReachTo - lag) * kMs),
        text("Delay the reference by about %.0f ms", std::floor(lag * kMs - 5)));
  } else {
    say("delay", Severity::kNote, kRef, kEverywhere,
        text("The echo comes %.2f ms after the reference", lag * kMs),
        text("%.2f ms inside the canceller's reach at its start, %.0f ms at its end",
             (lag - kReachFrom) * kMs, (kReachTo - lag) * kMs),
        "");
  }
  if (signs < 0) {
    say("inverted_reference", Severity::kNote, kRef, kEverywhere,
        "The echo has the opposite polarity of the reference", "in all microphones",
        "Nothing: the canceller learns it");
  }
  if (reference_is_clean) look_for_drift_and_jumps(points);
}

// Three windows in a row agree, the three after them agree, and not with those.
void Check::State::take_out_jumps(std::vector<Point>* points) {
  constexpr double kJump = 8, kAgree = 4;  // samples
  std::vector<double> steps;
  for (size_t i = 1; i < points->size(); ++i) {
    steps.push_back(((*points)[i].lag - (*points)[i - 1].lag) /
                    ((*points)[i].seconds - (*points)[i - 1].seconds));
  }
  const double slope = median(steps);
  size_t jumps = 0;
  double first = NAN, last = NAN, largest = 0;
  for (size_t i = 3; i + 3 <= points->size(); ++i) {
    const auto spread = [&](size_t from) {
      double low = INFINITY, high = -INFINITY;
      for (size_t k = from; k < from + 3; ++k) {
        low = std::min(low, (*points)[k].lag);
        high = std::max(high, (*points)[k].lag);
      }
      return high - low;
    };
    const Point before = (*points)[i - 1], after = (*points)[i];
    const double jump = after.lag - before.lag - slope * (after.seconds - before.seconds);
    if (spread(i - 3) > kAgree || spread(i) > kAgree || std::fabs(jump) < kJump) continue;
    if (jumps++ == 0) first = before.seconds;
    last = after.seconds;
    if (std::fabs(jump) > std::fabs(largest)) largest = jump;
    for (size_t k = i; k < points->size(); ++k) (*points)[k].lag -= jump;
  }
  if (jumps == 0) return;
  say("delay_jump", Severity::kFault, kRef, {first, last}, "The delay of the reference jumps",
      text("%s, by %+.1f ms%s", counted(jumps, "time", "times").c_str(), largest * kMs,
           jumps > 1 ? " at most" : ""),
      "Samples were lost in one of the streams: raise the capture's priority or its buffer size");
}

void Check::State::look_for_drift_and_jumps(std::vector<Point> points) {
  constexpr size_t kFewest = 6, kMost = 400;
  if (points.size() < kFewest) return;
  take_out_jumps(&points);
  // Theil-Sen: the median of the slopes between points.
  const size_t step = points.size() / kMost + 1;
  std::vector<double> slopes;
  for (size_t i = 0; i < points.size(); i += step) {
    for (size_t j = i + step; j < points.size(); j += step) {
      slopes.push_back((points[j].lag - points[i].lag) / (points[j].seconds - points[i].seconds));
    }
  }
  const double slope = median(slopes);
  const double length = points.back().seconds - points.front().seconds;
  std::vector<double> errors, starts;
  for (const Point& p : points) starts.push_back(p.lag - slope * p.seconds);
  const double start = median(starts);
  for (const double s : starts) errors.push_back(std::fabs(s - start));
  constexpr double kFits = 2, kShortest = 10;  // samples, s
  constexpr double kPpmNamed = 3, kPpmFault = 20, kSamplesNamed = 1.5;
  if (median(errors) > kFits || length < kShortest) return;
  result.drift_ppm = 1e6 * slope / QUIBO_SAMPLE_RATE;
  if (std::fabs(result.drift_ppm) < kPpmNamed || std::fabs(slope) * length < kSamplesNamed) return;
  say("clock_drift",
      std::fabs(result.drift_ppm) > kPpmFault ? Severity::kFault : Severity::kWarning, kRef,
      {points.front().seconds, points.back().seconds},
      "The reference and the microphones run on different clocks",
      text("%.1f ppm: the delay %s by %.1f samples in %.0f s", result.drift_ppm,
           slope > 0 ? "grows" : "shrinks", std::fabs(slope) * length, length),
      "Clock both converters from one source, or resample the reference to follow");
}

CheckResult Check::finish() {
  State& s = *state_;
  for (SampleScan& scan : s.samples) scan.finish();
  s.echo.finish();
  s.result.drift_ppm = NAN;
  s.result.seconds = static_cast<double>(s.levels.frames()) * QUIBO_FRAME / QUIBO_SAMPLE_RATE;
  s.look_at_channels();
  s.look_for_lost_blocks();
  s.look_at_rate();
  if (!s.look_for_wrong_channels()) {
    s.look_at_array();
    const bool clean = s.look_at_reference();
    if (s.levels.playing() > 0) s.look_at_delay(clean);
  }
  std::stable_sort(s.result.findings.begin(), s.result.findings.end(),
                   [](const Finding& a, const Finding& b) { return a.severity > b.severity; });
  return s.result;
}

}  // namespace quibo::recordings
