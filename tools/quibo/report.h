// One self-contained page about a recording: what viewer/report.html shows.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "check.h"
#include "events.h"
#include "run.h"

namespace quibo::recordings {

// A signal as the page carries it: FLAC while it is short enough to be carried, and a spectrogram of
// at most 6000 columns however long it is.
class ReportSignal {
 public:
  ReportSignal();
  ~ReportSignal();

  void add(const int16_t* samples, int count);
  void finish();

  // Base64 of the FLAC file; null: longer than kLongestAudio.
  Json audio() const;
  Json spectrogram() const;

  static constexpr int kLongestAudio = 20 * 60;  // s

 private:
  struct Encoder;
  void add_column();

  std::unique_ptr<Encoder> encoder_;
  std::vector<int16_t> pending_;             // less than a frame
  std::vector<std::vector<float>> columns_;  // mean power per band
  int frames_per_column_ = 1, frames_in_column_ = 0;
  std::vector<float> column_;
};

// The page's data. `recording` is about_recording() with the notes that were said.
Json report_data(const std::string& title, const Json& recording, const RunResult& run,
                 bool raw_timing, const std::vector<Json>& wakes, const CheckResult& check,
                 const std::vector<std::string>& warnings, const ReportSignal& before,
                 const ReportSignal& after);

// The page with the data in it.
std::string report_page(const Json& data);

}  // namespace quibo::recordings
