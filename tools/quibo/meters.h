// Levels, and how much of the echo went away, second by second.
#pragma once

#include <cstdint>
#include <vector>

namespace quibo::recordings {

// RMS and peak of one signal per second, in dBFS, no less than -120.
class LevelMeter {
 public:
  // Leaves out the first `delay` samples, so that a delayed signal is measured lined up.
  explicit LevelMeter(int delay = 0) : skip_(delay) {}

  void add(const int16_t* samples, int count);
  void finish();  // closes a last second that is not full

  const std::vector<float>& level() const { return level_; }
  const std::vector<float>& peak() const { return peak_; }

 private:
  void close();

  int skip_;
  int filled_ = 0;
  int64_t power_ = 0;
  int loudest_ = 0;
  std::vector<float> level_, peak_;
};

// Tells the seconds in which only the device plays: the reference is active, and the linear
// canceller's echo estimate is the microphone but for a twentieth of its power (squared correlation
// of 0.95). A second in which somebody talks is none, nor is one in which the canceller has not yet
// learnt the room.
class EchoMeter {
 public:
  // One frame: of microphone 1 its power, that of its echo estimate, and their product.
  void add(double mic, double echo, double shared, int samples);
  void finish();

  const std::vector<bool>& explained() const { return explained_; }

 private:
  void close();

  int filled_ = 0;
  double mic_ = 0, echo_ = 0, shared_ = 0;
  std::vector<bool> explained_;
};

// Of a whole recording, from its levels per second.
struct EchoReduction {
  std::vector<float> per_second;  // dB; NaN where the reference is silent
  std::vector<bool> only_device;  // seconds that count in the median
  float median;                   // dB, of those seconds; NaN: there were none
};
EchoReduction echo_reduction(const std::vector<float>& mic, const std::vector<float>& ref,
                             const std::vector<float>& clean, const std::vector<bool>& explained);

}  // namespace quibo::recordings
