#include "channels.h"

#include <algorithm>
#include <cstdlib>
#include <sstream>

#include "problem.h"
#include "quibo/quibo.h"

namespace quibo::recordings {

const char* const kTrackNames[kTracks] = {"mic1", "mic2", "mic3", "ref"};

namespace {

constexpr int kNowhere = -1;

std::vector<std::string> split(const std::string& text) {
  std::vector<std::string> parts;
  std::stringstream stream(text);
  for (std::string part; std::getline(stream, part, ',');) {
    part.erase(std::remove(part.begin(), part.end(), ' '), part.end());
    parts.push_back(part);
  }
  return parts;
}

// The track of a name, or kNowhere.
int track_of(const std::string& name) {
  for (int t = 0; t < kTracks; ++t) {
    if (name == kTrackNames[t]) return t;
  }
  return kNowhere;
}

// A channel number counted from 1, or 0.
int number(const std::string& text) {
  const bool digits =
      !text.empty() && text.size() < 6 &&
      std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
  return digits ? std::atoi(text.c_str()) : 0;
}

void place(ChannelMap* map, int track, int channel, int channels) {
  if (map->channel[track] != kNowhere) {
    throw WrongUse(std::string("the channel map names ") + kTrackNames[track] + " twice");
  }
  if (channel < 0 || channel >= channels) {
    throw WrongUse(std::string("the channel map puts ") + kTrackNames[track] + " on channel " +
                   std::to_string(channel + 1) + ", but the recording has " +
                   std::to_string(channels));
  }
  map->channel[track] = channel;
}

}  // namespace

ChannelMap parse_channel_map(const std::string& text, int channels) {
  ChannelMap map = {{kNowhere, kNowhere, kNowhere, kNowhere}};
  const std::vector<std::string> parts = split(text);
  const bool numbers = parts.size() == kTracks &&
                       std::all_of(parts.begin(), parts.end(),
                                   [](const std::string& part) { return number(part) > 0; });
  for (size_t i = 0; i < parts.size(); ++i) {
    const size_t equals = parts[i].find('=');
    if (equals != std::string::npos) {
      const int track = track_of(parts[i].substr(0, equals));
      const int channel = number(parts[i].substr(equals + 1));
      if (track == kNowhere || channel == 0) {
        throw WrongUse("the channel map does not know \"" + parts[i] +
                       "\": mic1=1,mic2=2,mic3=3,ref=4");
      }
      place(&map, track, channel - 1, channels);
    } else if (numbers) {
      place(&map, static_cast<int>(i), number(parts[i]) - 1, channels);
    } else if (const int track = track_of(parts[i]); track != kNowhere) {
      place(&map, track, static_cast<int>(i), channels);
    }
  }
  for (int t = 0; t < kTracks; ++t) {
    if (map.channel[t] == kNowhere) {
      throw WrongUse(
          std::string("the channel map \"") + text + "\" has no " + kTrackNames[t] +
          ": it takes names in order (mic1,mic2,mic3,ref; - for unused ones) or four numbers");
    }
    for (int other = 0; other < t; ++other) {
      if (map.channel[t] == map.channel[other]) {
        throw WrongUse(std::string("the channel map puts ") + kTrackNames[other] + " and " +
                       kTrackNames[t] + " on the same channel");
      }
    }
  }
  return map;
}

std::optional<ChannelMap> guess_channel_map(int channels) {
  if (channels == 4) return ChannelMap{{0, 1, 2, 3}};
  if (channels == 6) return ChannelMap{{0, 1, 2, 4}};
  return std::nullopt;
}

std::string describe(const ChannelMap& map) {
  std::string text;
  for (int t = 0; t < kTracks; ++t) {
    text += std::string(t ? ", " : "") + kTrackNames[t] + "=" + std::to_string(map.channel[t] + 1);
  }
  return text;
}

namespace {

// Correlation of neighbouring samples, -1..1; 0 for silence.
double smoothness(const std::vector<int16_t>& x) {
  double power = 0, shared = 0;
  for (size_t i = 1; i < x.size(); ++i) {
    power += double{1} * x[i] * x[i];
    shared += double{1} * x[i] * x[i - 1];
  }
  return power > 0 ? shared / power : 0;
}

}  // namespace

std::optional<bool> looks_scrambled(const std::vector<int16_t>& samples) {
  constexpr double kPlainlyMore = 0.1;
  std::vector<int16_t> decoded = samples;
  dec_data(decoded.data(), static_cast<int32_t>(decoded.size()));
  const double gain = smoothness(decoded) - smoothness(samples);
  if (gain > kPlainlyMore) return true;
  if (gain < -kPlainlyMore) return false;
  return std::nullopt;
}

}  // namespace quibo::recordings
