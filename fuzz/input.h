// What a fuzz target makes of the fuzzer's bytes: choices, numbers, and long signals from a few of
// them, so that a frame of four channels costs the fuzzer ten bytes, not 8 KiB. Past the end every
// byte is 0.
#pragma once

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

namespace quibo_fuzz {

// The property a target holds; a failure is a crash to the fuzzer.
inline void require(bool holds) {
  if (!holds) abort();
}

class Input {
 public:
  Input(const uint8_t* data, size_t size) : next_(data), end_(data + size) {}

  bool empty() const { return next_ == end_; }
  uint8_t byte() { return empty() ? 0 : *next_++; }
  int choose(int count) { return byte() % count; }

  template <class T>
  T any() {
    uint8_t bytes[sizeof(T)] = {};
    for (size_t i = 0; i < sizeof(T); ++i) bytes[i] = byte();
    T value;
    memcpy(&value, bytes, sizeof value);
    return value;
  }

  // A signal of exactly `count` samples on the heap, where the sanitizer sees its ends.
  std::vector<int16_t> samples(int count) {
    std::vector<int16_t> x(static_cast<size_t>(count));
    const int kind = choose(6);
    const int period = 1 + byte();
    const int16_t level = any<int16_t>();
    uint32_t random = static_cast<uint32_t>(level) * 2 + 1;
    int16_t pattern[16];
    if (kind == 5) {
      for (int16_t& p : pattern) p = any<int16_t>();
    }
    for (int i = 0; i < count; ++i) {
      const bool half = i / period % 2;
      random = random * 1664525u + 1013904223u;
      const int16_t noise = static_cast<int16_t>(random >> 16);
      const int16_t values[] = {0,
                                level,                                               // constant
                                half ? static_cast<int16_t>(-1 - level) : level,     // square
                                static_cast<int16_t>(noise >> (period % 16)),        // noise
                                static_cast<int16_t>(i % (4 * period) ? 0 : level),  // clicks
                                kind == 5 ? pattern[i % 16] : static_cast<int16_t>(0)};
      x[static_cast<size_t>(i)] = values[kind];
    }
    return x;
  }

  // The same as floats of full scale 1.0, with up to three of any value in between.
  std::vector<float> floats(int count) {
    std::vector<float> x;
    x.reserve(static_cast<size_t>(count));
    for (const int16_t v : samples(count)) x.push_back(static_cast<float>(v) * 0x1p-15f);
    for (int pokes = choose(4); pokes > 0; --pokes) {
      const size_t at = any<uint16_t>() % x.size();
      x[at] = any<float>();
    }
    return x;
  }

 private:
  const uint8_t* next_;
  const uint8_t* end_;
};

}  // namespace quibo_fuzz

// The fuzzer's interface, given to every target by libFuzzer or by replay.cpp.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
