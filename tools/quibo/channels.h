// Which channel of a recording is which, and whether its microphones are in the codec's encoding.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace quibo::recordings {

constexpr int kMics = 3;
constexpr int kTracks = kMics + 1;  // microphones 1, 2, 3 and the reference, always in this order
constexpr int kRef = kMics;
extern const char* const kTrackNames[kTracks];  // "mic1", "mic2", "mic3", "ref"

// Channel of each track, counted from 0.
struct ChannelMap {
  int channel[kTracks];
};

// Reads a map, for a recording of `channels` channels, written in one of three ways:
//   mic1,mic2,mic3,-,ref,-       the name of each channel in order; anything else is an unused one
//   1,2,3,5                      the numbers, from 1, of mic1, mic2, mic3 and ref
//   mic1=1,mic2=2,mic3=3,ref=5   both, in any order
// Throws WrongUse when a track is missing, there twice, or beyond the last channel.
ChannelMap parse_channel_map(const std::string& text, int channels);

// The two layouts that are known by their number of channels: 4 (three microphones, reference) and
// 6 (three microphones, any, reference, any). None for other numbers.
std::optional<ChannelMap> guess_channel_map(int channels);

// "mic1=1, mic2=2, mic3=3, ref=5"
std::string describe(const ChannelMap& map);

// Whether samples of one microphone are in the codec's encoding: neighbouring samples of sound
// resemble each other, and those of a scrambled channel do so only once they are decoded. No answer
// where both are alike, as in silence.
std::optional<bool> looks_scrambled(const std::vector<int16_t>& samples);

}  // namespace quibo::recordings
