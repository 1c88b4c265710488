// Reading audio files: WAV, RF64, FLAC and whatever else libsndfile knows, headerless samples, and
// either of them from standard input.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace quibo::recordings {

// Headerless interleaved samples, little-endian.
struct RawFormat {
  int channels;
  int rate = 16000;
  std::string sample = "s16";  // u8, s8, s16, s24, s32, f32
};

// Reads "CHANNELS[,RATE[,SAMPLE]]", as in "4", "6,48000" or "4,48000,f32". Throws WrongUse.
RawFormat parse_raw_format(const std::string& text);

class Recording {
 public:
  // `path` "-" is standard input. Throws FileProblem with a line that says what is wrong.
  Recording(const std::string& path, const std::optional<RawFormat>& raw);
  ~Recording();
  Recording(const Recording&) = delete;
  Recording& operator=(const Recording&) = delete;

  int channels() const { return channels_; }
  int rate() const { return rate_; }
  int64_t frames() const { return frames_; }             // per channel as promised; -1: not known
  bool sixteen_bits() const { return sixteen_bits_; }    // samples are stored as int16
  const std::string& format() const { return format_; }  // "WAV, 16 bit"

  // Reads up to `frames` samples of every channel, interleaved, full scale 1.0; returns how many
  // there were, 0 at the end. Samples of 16 bits and fewer are exact.
  int64_t read(float* interleaved, int64_t frames);

  // What was wrong with the file so far, a line each; complete once read() has returned 0.
  const std::vector<std::string>& warnings() const { return warnings_; }

 private:
  struct File;
  void look_for_cut();

  std::unique_ptr<File> file_;
  int channels_ = 0, rate_ = 0;
  int64_t frames_ = -1, read_ = 0;
  bool sixteen_bits_ = false, ended_ = false;
  std::string format_;
  std::vector<std::string> warnings_;
};

}  // namespace quibo::recordings
