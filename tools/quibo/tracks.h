// A recording as the front end sees it: three microphones and the reference, plain, full scale 1.0.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "channels.h"
#include "recording.h"

namespace quibo::recordings {

// Where tracks come from: a file, or samples in memory.
class TrackSource {
 public:
  virtual ~TrackSource() = default;
  virtual int rate() const = 0;
  virtual int64_t frames() const = 0;  // per track; -1: not known
  // Reads up to `frames` samples of each track; returns how many, 0 at the end. Values are finite.
  virtual int read(float* const tracks[kTracks], int frames) = 0;
};

enum class Encoding { kGuess, kPlain, kScrambled };

struct InputOptions {
  std::optional<RawFormat> raw;  // headerless samples
  std::string channels;          // as parse_channel_map() reads it; empty: guessed
  Encoding encoding = Encoding::kGuess;
};

// The tracks of a file. The constructor throws FileProblem and WrongUse.
class FileTracks : public TrackSource {
 public:
  FileTracks(const std::string& path, const InputOptions& options);

  int rate() const override { return recording_.rate(); }
  int64_t frames() const override { return recording_.frames(); }
  int read(float* const tracks[kTracks], int frames) override;

  const Recording& recording() const { return recording_; }
  const ChannelMap& map() const { return map_; }
  bool scrambled() const { return scrambled_; }
  // What was assumed, a line each.
  const std::vector<std::string>& notes() const { return notes_; }
  // What is wrong with the recording, a line each; complete once read() has returned 0.
  std::vector<std::string> warnings() const;

 private:
  void choose_map(const std::string& text);
  void choose_encoding(Encoding wanted);
  int fill(int frames);

  Recording recording_;
  ChannelMap map_{};
  bool scrambled_ = false;
  std::vector<std::string> notes_;
  std::vector<float> interleaved_;    // read and not yet handed out ...
  size_t taken_ = 0, available_ = 0;  // ... between these, in samples per channel
  int64_t not_numbers_ = 0;
};

}  // namespace quibo::recordings
