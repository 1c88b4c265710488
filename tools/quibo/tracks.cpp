#include "tracks.h"

#include <algorithm>
#include <cmath>

#include "problem.h"
#include "quibo/quibo.h"
#include "samples.h"

namespace quibo::recordings {

namespace {

constexpr int kGuessSeconds = 30;  // of the start, from which the encoding is guessed

}  // namespace

FileTracks::FileTracks(const std::string& path, const InputOptions& options)
    : recording_(path, options.raw) {
  choose_map(options.channels);
  choose_encoding(options.encoding);
}

void FileTracks::choose_map(const std::string& text) {
  const int channels = recording_.channels();
  if (!text.empty()) {
    map_ = parse_channel_map(text, channels);
    return;
  }
  const std::optional<ChannelMap> guess = guess_channel_map(channels);
  if (!guess) {
    throw WrongUse(
        std::to_string(channels) + (channels == 1 ? " channel" : " channels") +
        ": three microphones and a reference are needed; say which is which with --channels");
  }
  map_ = *guess;
  notes_.push_back(std::to_string(channels) + " channels taken as " + describe(map_));
}

void FileTracks::choose_encoding(Encoding wanted) {
  const bool can_be_scrambled = recording_.sixteen_bits() && recording_.rate() == QUIBO_SAMPLE_RATE;
  if (wanted == Encoding::kScrambled && !can_be_scrambled) {
    throw WrongUse("scrambled microphones are 16 bit at 16000 Hz, and this is " +
                   recording_.format() + " at " + std::to_string(recording_.rate()) + " Hz");
  }
  scrambled_ = wanted == Encoding::kScrambled;
  if (wanted != Encoding::kGuess || !can_be_scrambled) return;

  const int frames = fill(kGuessSeconds * recording_.rate());
  std::vector<int16_t> mic(static_cast<size_t>(frames));
  const size_t channels = static_cast<size_t>(recording_.channels());
  int64_t clipped = 0;
  for (size_t i = 0; i < mic.size(); ++i) {
    mic[i] = to_int16(interleaved_[i * channels + static_cast<size_t>(map_.channel[0])], &clipped);
  }
  scrambled_ = looks_scrambled(mic).value_or(false);
  if (scrambled_) notes_.push_back("the microphones are scrambled: decoded");
}

// Makes up to `frames` samples available; returns how many there are.
int FileTracks::fill(int frames) {
  const size_t channels = static_cast<size_t>(recording_.channels());
  if (taken_ == available_) taken_ = available_ = 0;
  if (available_ - taken_ == 0) {
    interleaved_.resize(std::max(interleaved_.size(), static_cast<size_t>(frames) * channels));
    while (available_ < static_cast<size_t>(frames)) {
      const int64_t got = recording_.read(interleaved_.data() + available_ * channels,
                                          frames - static_cast<int64_t>(available_));
      if (got == 0) break;
      available_ += static_cast<size_t>(got);
    }
  }
  return static_cast<int>(std::min(available_ - taken_, static_cast<size_t>(frames)));
}

int FileTracks::read(float* const tracks[kTracks], int frames) {
  const int got = fill(frames);
  const size_t channels = static_cast<size_t>(recording_.channels());
  for (int t = 0; t < kTracks; ++t) {
    const float* from = interleaved_.data() + taken_ * channels + map_.channel[t];
    for (int i = 0; i < got; ++i) {
      const float x = from[static_cast<size_t>(i) * channels];
      not_numbers_ += !std::isfinite(x);
      tracks[t][i] = std::isfinite(x) ? x : 0.0f;
    }
  }
  taken_ += static_cast<size_t>(got);
  if (!scrambled_) return got;
  for (int t = 0; t < kMics; ++t) {
    int64_t clipped = 0;
    for (int i = 0; i < got; ++i) {
      int16_t x = to_int16(tracks[t][i], &clipped);
      dec_data(&x, 1);
      tracks[t][i] = to_float(x);
    }
  }
  return got;
}

std::vector<std::string> FileTracks::warnings() const {
  std::vector<std::string> lines = recording_.warnings();
  if (not_numbers_ > 0) {
    lines.push_back(std::to_string(not_numbers_) + " samples are not numbers: taken as silence");
  }
  return lines;
}

}  // namespace quibo::recordings
