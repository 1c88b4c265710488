#include "report.h"

#include <sndfile.h>
#include <time.h>

#include <algorithm>
#include <cmath>

#include "check_json.h"
#include "dsp/complex.h"
#include "dsp/fft.h"
#include "samples.h"

namespace quibo::recordings {

extern const char report_template[];  // viewer/report.html
extern const size_t report_template_size;

namespace {

constexpr int kFft = QUIBO_FRAME, kBins = kFft / 2;
constexpr int kBands = 128, kBinsPerBand = kBins / kBands;
constexpr size_t kMostColumns = 6000;
constexpr double kLowest = -110, kHighest = -20;  // dB of the spectrogram's bytes

std::string base64(const std::string& bytes) {
  constexpr char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  text.reserve((bytes.size() + 2) / 3 * 4);
  for (size_t i = 0; i < bytes.size(); i += 3) {
    uint32_t group = 0;
    for (size_t k = 0; k < 3; ++k) {
      group = group << 8 | (i + k < bytes.size() ? static_cast<uint8_t>(bytes[i + k]) : 0u);
    }
    for (size_t k = 0; k < 4; ++k)
      text += i + k > bytes.size() ? '=' : kDigits[group >> (18 - 6 * k) & 63];
  }
  return text;
}

// libsndfile's file functions over a string.
struct Memory {
  std::string bytes;
  size_t at = 0;

  static Memory* of(void* self) { return static_cast<Memory*>(self); }
  static sf_count_t length(void* self) { return static_cast<sf_count_t>(of(self)->bytes.size()); }
  static sf_count_t tell(void* self) { return static_cast<sf_count_t>(of(self)->at); }
  static sf_count_t seek(sf_count_t offset, int whence, void* self) {
    const sf_count_t base = whence == SEEK_SET ? 0 : whence == SEEK_CUR ? tell(self) : length(self);
    of(self)->at = static_cast<size_t>(std::max<sf_count_t>(0, base + offset));
    return tell(self);
  }
  static sf_count_t read(void*, sf_count_t, void*) { return 0; }
  static sf_count_t write(const void* data, sf_count_t count, void* self) {
    Memory* memory = of(self);
    const size_t size = static_cast<size_t>(count);
    memory->bytes.resize(std::max(memory->bytes.size(), memory->at + size));
    std::copy_n(static_cast<const char*>(data), size,
                memory->bytes.begin() + static_cast<std::ptrdiff_t>(memory->at));
    memory->at += size;
    return count;
  }
};

}  // namespace

struct ReportSignal::Encoder {
  Memory memory;
  SNDFILE* file = nullptr;
  int64_t samples = 0;

  Encoder() {
    SF_VIRTUAL_IO io = {Memory::length, Memory::seek, Memory::read, Memory::write, Memory::tell};
    SF_INFO info = {};
    info.channels = 1;
    info.samplerate = QUIBO_SAMPLE_RATE;
    info.format = SF_FORMAT_FLAC | SF_FORMAT_PCM_16;
    file = sf_open_virtual(&io, SFM_WRITE, &info, &memory);
  }
  ~Encoder() { close(); }
  void close() {
    if (file) sf_close(file);
    file = nullptr;
  }
  void drop() {
    close();
    memory.bytes = {};
  }
};

ReportSignal::ReportSignal() : encoder_(new Encoder), column_(kBands) {}
ReportSignal::~ReportSignal() = default;

void ReportSignal::add(const int16_t* samples, int count) {
  if (encoder_->file) sf_write_short(encoder_->file, samples, count);
  encoder_->samples += count;
  if (encoder_->samples > int64_t{kLongestAudio} * QUIBO_SAMPLE_RATE) encoder_->drop();
  pending_.insert(pending_.end(), samples, samples + count);
  while (pending_.size() >= QUIBO_FRAME) {
    add_column();
    pending_.erase(pending_.begin(), pending_.begin() + QUIBO_FRAME);
  }
}

void ReportSignal::add_column() {
  static const std::vector<float> hann = [] {
    std::vector<float> window;
    window.reserve(kFft);
    for (int i = 0; i < kFft; ++i)
      window.push_back(static_cast<float>(0.5 - 0.5 * std::cos(2 * M_PI * i / kFft)));
    return window;
  }();
  float samples[kFft];
  complex_t bins[kBins + 1];
  for (size_t i = 0; i < kFft; ++i) samples[i] = to_float(pending_[i]) * hann[i];
  my_fft<kFft>(samples, bins);
  constexpr float kScale = 1.0f / (kFft / 4.0f * kFft / 4.0f) /
                           kBinsPerBand;  // a full-scale sine in one bin: about 0 dB
  for (size_t k = 0; k < kBins; ++k) {
    column_[k / kBinsPerBand] +=
        kScale * (bins[k].real * bins[k].real + bins[k].imag * bins[k].imag);
  }
  if (++frames_in_column_ < frames_per_column_) return;
  for (float& power : column_) power /= static_cast<float>(frames_in_column_);
  columns_.push_back(column_);
  std::fill(column_.begin(), column_.end(), 0.0f);
  frames_in_column_ = 0;
  if (columns_.size() < kMostColumns) return;
  // Twice as wide from now on.
  for (size_t i = 0; i < kMostColumns / 2; ++i) {
    for (size_t b = 0; b < kBands; ++b)
      columns_[i][b] = 0.5f * (columns_[2 * i][b] + columns_[2 * i + 1][b]);
  }
  columns_.resize(kMostColumns / 2);
  frames_per_column_ *= 2;
}

void ReportSignal::finish() {
  encoder_->close();
}

Json ReportSignal::audio() const {
  return encoder_->memory.bytes.empty() ? Json(nullptr) : Json(base64(encoder_->memory.bytes));
}

Json ReportSignal::spectrogram() const {
  std::string bytes;
  for (const std::vector<float>& column : columns_) {
    for (const float power : column) {
      const double db = power_db(static_cast<double>(power));
      bytes += static_cast<char>(
          std::lround(255 * std::clamp((db - kLowest) / (kHighest - kLowest), 0.0, 1.0)));
    }
  }
  return {{"columns", columns_.size()},
          {"bands", kBands},
          {"seconds_per_column",
           static_cast<double>(frames_per_column_) * QUIBO_FRAME / QUIBO_SAMPLE_RATE},
          {"max_hz", QUIBO_SAMPLE_RATE / 2},
          {"min_db", kLowest},
          {"max_db", kHighest},
          {"base64", base64(bytes)}};
}

namespace {

Json series(const std::vector<float>& values) {
  Json list = Json::array();
  for (const float value : values) list.push_back(rounded(static_cast<double>(value), 1));
  return list;
}

std::string now() {
  const time_t t = time(nullptr);
  tm utc;
  gmtime_r(&t, &utc);
  char text[32];
  strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return text;
}

Json levels(const RunResult& run, bool peaks) {
  Json json = {{"seconds_per_point", 1}};
  for (int t = 0; t < kTracks; ++t)
    json[kTrackNames[t]] = series(peaks ? run.track_peak[t] : run.track_level[t]);
  for (int o = 0; o < kOutputs; ++o) {
    const std::string name = o == kClean ? "clean" : "out" + std::to_string(o + 1);
    json[name] = series(peaks ? run.output_peak[o] : run.output_level[o]);
  }
  return json;
}

}  // namespace

Json report_data(const std::string& title, const Json& recording, const RunResult& run,
                 bool raw_timing, const std::vector<Json>& wakes, const CheckResult& check,
                 const std::vector<std::string>& warnings, const ReportSignal& before,
                 const ReportSignal& after) {
  const double seconds = static_cast<double>(run.samples) / QUIBO_SAMPLE_RATE;
  Json data = {{"format", "quibo-report"}, {"version", 1}, {"title", title}, {"created", now()}};
  data["quibo"] = about_quibo();
  data["recording"] = recording;
  data["recording"]["seconds"] = rounded(seconds, 3);
  data["sample_rate"] = static_cast<int>(QUIBO_SAMPLE_RATE);
  data["samples"] = run.samples;
  data["seconds"] = rounded(seconds, 3);
  data["raw_timing"] = raw_timing;
  const auto audio = [](const char* label, const ReportSignal& signal, Json file) -> Json {
    return {{"label", label}, {"mime", "audio/flac"}, {"base64", signal.audio()}, {"file", file}};
  };
  data["audio"]["before"] = audio("Microphone 1", before, nullptr);
  data["audio"]["after"] = audio("Output", after, "clean.wav");
  // The viewer computes its own from the audio.
  if (before.audio().is_null()) {
    data["spectrograms"] = {{"before", before.spectrogram()}, {"after", after.spectrogram()}};
  }
  data["levels"] = levels(run, false);
  data["peaks"] = levels(run, true);
  data["echo"] = {{"seconds_per_point", 1},
                  {"reduction_db", series(run.echo.per_second)},
                  {"only_device", run.echo.only_device},
                  {"median_reduction_db", rounded(static_cast<double>(run.echo.median), 1)}};
  data["check"] = check_json(check);
  data["reference_delay"] = data["check"]["reference_delay"];
  data["check"].erase("reference_delay");
  data["wakes"] = wakes;
  data["warnings"] = warnings;
  data["summary"] = {{"wakes", run.wakes.size()},
                     {"seconds", rounded(seconds, 3)},
                     {"echo_reduction_db", rounded(static_cast<double>(run.echo.median), 1)},
                     {"core_share", rounded(run.processor_seconds / seconds, 5)},
                     {"seconds_used", rounded(run.processor_seconds, 2)}};
  return data;
}

std::string report_page(const Json& data) {
  constexpr char kPlace[] = "QUIBO_REPORT_DATA";
  std::string page(report_template, report_template_size);
  std::string text;
  for (const char c : data.dump(-1, ' ', false, Json::error_handler_t::replace)) {
    if (c == '<') {
      text += "\\u003c";  // so that no text can end the script element
    } else {
      text += c;
    }
  }
  const size_t at = page.rfind(kPlace);
  return page.substr(0, at) + text + page.substr(at + sizeof kPlace - 1);
}

}  // namespace quibo::recordings
