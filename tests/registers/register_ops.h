// The operations of one instruction set's registers as plain functions on arrays. The units that
// provide them are compiled for that instruction set, so nothing here comes from the C++ library.
#pragma once

#include <stdint.h>

namespace quibo_test {

constexpr int kMaxLanes = 16, kMaxTaps = 4;
constexpr int kValues = 4 * kMaxLanes;

// in: registers of `width` floats one after the other, at least 16 floats; out: likewise.
struct FloatOp {
  const char* name;
  void (*run)(const float* in, float* out);
};

struct Integers {
  int32_t a[kMaxLanes], b[kMaxLanes];
  uint8_t codes[kMaxLanes * kMaxTaps];
  int8_t weights[kMaxLanes * kMaxTaps];
  float x[kMaxLanes];
};

// Results of 32 bits go to out, floats by their bits, bytes one per lane.
struct IntegerOp {
  const char* name;
  void (*run)(const Integers& in, int32_t* out);
};

struct RegisterOps {
  int width;  // lanes of a float register
  const FloatOp* float_ops;
  int float_count;
  int lanes, taps;  // of an integer register
  const IntegerOp* integer_ops;
  int integer_count;
};

}  // namespace quibo_test
