// A fingerprint of results whose every bit is part of the system: the networks are trained, and the
// adaptive filter tuned, with these very roundings, so that another order of additions or a more
// exact constant is a change of behaviour even where it is more accurate. Input is made of integers:
// the standard library's distributions differ between platforms.
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

namespace quibo_test {

// FNV-1a.
class Bits {
 public:
  void add(const void* values, size_t bytes) {
    const auto* byte = static_cast<const unsigned char*>(values);
    for (size_t i = 0; i < bytes; ++i) hash_ = (hash_ ^ byte[i]) * 0x100000001b3;
  }

  template <class T>
  void add(const std::vector<T>& values) {
    add(values.data(), values.size() * sizeof(T));
  }

  uint64_t value() const { return hash_; }

 private:
  uint64_t hash_ = 0xcbf29ce484222325;
};

// Evenly distributed in -1 .. 1.
inline std::vector<float> even_noise(std::mt19937& random, size_t count) {
  std::vector<float> x(count);
  for (float& v : x) v = static_cast<float>(random()) * 0x1p-31f - 1.0f;
  return x;
}

}  // namespace quibo_test
