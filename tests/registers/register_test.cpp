// Every operation of the registers that this processor has against its contract
// (dsp/simd_scalar.h, dsp/int8_scalar.h), bit by bit: signed zeros, infinities, denormals and which
// operand a NaN selects included. Prints what differs and then exits with 1.

#include <math.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "dsp/kernels.h"
#include "register_ops.h"

namespace quibo_test {
#define V(isa) extern const RegisterOps isa;
QUIBO_VARIANTS
#undef V
}  // namespace quibo_test

namespace {

using namespace quibo_test;

constexpr unsigned kSeed = 20251103;

int failures = 0;

template <class To, class From>
To bits_as(From from) {
  To to;
  static_assert(sizeof to == sizeof from, "the same bits");
  memcpy(&to, &from, sizeof to);
  return to;
}

void expect(const std::string& what, int i, uint32_t got, uint32_t expected) {
  if (got == expected || ++failures > 30) return;
  printf("%s, result %d: %08x instead of %08x, seed %u\n", what.c_str(), i, got, expected, kSeed);
}

// ---- Float registers ---------------------------------------------------------------------------

enum Kind { kMoved, kComputed };  // a NaN that was computed may have any bits

struct FloatContract {
  Kind kind;
  int per_lane, at_least;  // number of results
  // Number i, of an operation on registers a, b, x, y of W lanes, which lie one behind the other.
  float (*result)(const float* in, int W, int i);
};

#define RESULT(...) \
  [](const float* in, int W, int i) -> float { return (void)W, (void)i, __VA_ARGS__; }
#define OF_LANES(...)                          \
  [](const float* in, int W, int i) -> float { \
    const float a = in[i], b = in[W + i];      \
    return (void)b, __VA_ARGS__;               \
  }

const std::map<std::string, FloatContract> kFloatContracts = {
    {"load and store", {kMoved, 1, 0, OF_LANES(a)}},
    {"splat", {kMoved, 1, 0, RESULT(in[1])}},
    {"add", {kComputed, 1, 0, OF_LANES(a + b)}},
    {"sub", {kComputed, 1, 0, OF_LANES(a - b)}},
    {"mul", {kComputed, 1, 0, RESULT(in[i] * in[W + i])}},
    {"div", {kComputed, 1, 0, OF_LANES(a / b)}},
    {"sqrt", {kComputed, 1, 0, OF_LANES(static_cast<float>(::sqrt(static_cast<double>(a))))}},
    {"larger", {kMoved, 1, 0, OF_LANES(a > b ? a : b)}},
    {"smaller", {kMoved, 1, 0, OF_LANES(a < b ? a : b)}},
    {"where_greater", {kMoved, 1, 0, OF_LANES(a > b ? in[2 * W + i] : in[3 * W + i])}},
    {"shift_to_exponent", {kMoved, 1, 0, OF_LANES(bits_as<float>(bits_as<uint32_t>(a) << 23))}},
    {"reverse", {kMoved, 1, 0, RESULT(in[W - 1 - i])}},
    {"lead<1>", {kMoved, 1, 0, OF_LANES(i < 1 ? a : b)}},
    {"lead<4>", {kMoved, 1, 0, OF_LANES(i < 4 ? a : b)}},
    {"load_repeat4", {kMoved, 1, 0, RESULT(in[i / 4])}},
    {"load_pairs", {kMoved, 2, 0, RESULT(i < W ? in[2 * i] : in[2 * (i - W) + 1])}},
    {"store_pairs", {kMoved, 2, 0, RESULT(in[i % 2 * W + i / 2])}},
    {"store_columns", {kMoved, 4, 0, RESULT(in[i % 4 * W + i / 4])}},
    // Of quads that the one-lane register has only the first lane.
    {"store_quads",
     {kMoved, 4, 16,
      RESULT(W > 1        ? in[i / 4 % 4 * W + i / 16 * 4 + i % 4]
             : i % 4 == 0 ? in[i / 4]
                          : 0.0f)}},
    {"four: sum of products",
     {kComputed, 0, 1,
      RESULT(((in[8] + in[0] * in[4]) + (in[8] + in[2] * in[6])) +
             ((in[8] + in[1] * in[5]) + (in[8] + in[3] * in[7])))}},
    {"four: transpose", {kMoved, 0, 16, RESULT(in[i % 4 * 4 + i / 4])}},
};

void check(const std::string& variant, const RegisterOps& ops, const float* in) {
  for (int k = 0; k < ops.float_count; ++k) {
    const FloatOp& op = ops.float_ops[k];
    const FloatContract& contract = kFloatContracts.at(op.name);
    float out[kValues] = {};
    op.run(in, out);
    const int count = std::max(contract.per_lane * ops.width, contract.at_least);
    for (int i = 0; i < count; ++i) {
      const float expected = contract.result(in, ops.width, i);
      if (contract.kind == kComputed && isnan(expected) && isnan(out[i])) continue;
      expect(variant + " " + op.name, i, bits_as<uint32_t>(out[i]), bits_as<uint32_t>(expected));
    }
  }
}

// Every pair of special values in every lane, then any bits.
void check_floats(const std::string& variant, const RegisterOps& ops) {
  const std::vector<float> special = {0.0f,      -0.0f,      1.0f,          -1.0f,
                                      1.5f,      -2.75f,     1e-45f,        -1e-45f,
                                      1e-38f,    -1.5e-38f,  3.4028235e38f, -3.4028235e38f,
                                      HUGE_VALF, -HUGE_VALF, nanf("1"),     -nanf("2")};
  const int n = static_cast<int>(special.size());
  float in[kValues];
  for (int first = 0; first < n; ++first) {
    for (int apart = 0; apart < n; ++apart) {
      for (int j = 0; j < kValues; ++j) {
        in[j] = special[(first + j % ops.width + j / ops.width * apart) % n];
      }
      check(variant, ops, in);
    }
  }
  std::mt19937 random(kSeed);
  for (int round = 0; round < 2000; ++round) {
    for (float& x : in) x = bits_as<float>(static_cast<uint32_t>(random()));
    check(variant, ops, in);
  }
}

// ---- Integer registers -------------------------------------------------------------------------

// Result i of an operation on registers of L lanes and T taps.
using IntegerContract = int64_t (*)(const Integers& in, int L, int T, int i);

int64_t adjacent(const Integers& in, int L, int j) {
  return j < L ? in.a[j] : in.b[j - L];
}

int64_t product(const Integers& in, int T, int i, bool repeated) {
  int64_t sum = in.a[i];
  for (int t = 0; t < T; ++t) sum += in.codes[repeated ? t : T * i + t] * in.weights[T * i + t];
  return sum;
}

#define INTEGER(...) \
  [](const Integers& in, int L, int T, int i) -> int64_t { return (void)L, (void)T, __VA_ARGS__; }

const std::map<std::string, IntegerContract> kIntegerContracts = {
    {"load and store", INTEGER(in.a[i])},
    {"splat", INTEGER((void)i, in.a[0])},
    {"add", INTEGER(int64_t{in.a[i]} + in.b[i])},
    {"pair_sums", INTEGER(adjacent(in, L, 2 * i) + adjacent(in, L, 2 * i + 1))},
    {"multiply_add", INTEGER(product(in, T, i, false))},
    {"multiply_add of repeated codes", INTEGER(product(in, T, i, true))},
    {"load_bytes", INTEGER(in.codes[i])},
    {"store_bytes", INTEGER(in.codes[i])},
    {"to_float", INTEGER(bits_as<int32_t>(static_cast<float>(in.a[i])))},
    {"round", INTEGER(lround(in.x[i]))},
};

void check_integers(const std::string& variant, const RegisterOps& ops) {
  const std::vector<float> halves = {
      0.0f,       -0.0f,       0.5f,   -0.5f,         0.49999997f,   -0.49999997f,
      1.5f,       2.5f,        -2.5f,  4194303.8f,    4194304.5f,    8388607.5f,
      8388609.0f, -8388609.0f, 1e-45f, 2147483520.0f, -2147483520.0f};
  std::mt19937 random(kSeed);
  for (int round = 0; round < 2000; ++round) {
    Integers in;
    const bool extreme = round % 2;
    for (int32_t& x : in.a)
      x = extreme ? INT32_MAX - static_cast<int>(random() % 3) : static_cast<int32_t>(random());
    for (int32_t& x : in.b) x = static_cast<int32_t>(random());
    for (uint8_t& x : in.codes) x = extreme ? 255 : static_cast<uint8_t>(random());
    for (int8_t& x : in.weights)
      x = extreme ? (random() % 2 ? 127 : -128) : static_cast<int8_t>(random());
    for (float& x : in.x) {
      x = extreme ? halves[random() % halves.size()]
                  : static_cast<float>(static_cast<int32_t>(random() & 0x7fffff3f)) /
                        static_cast<float>(1 << random() % 31);
    }
    for (int k = 0; k < ops.integer_count; ++k) {
      const IntegerOp& op = ops.integer_ops[k];
      int32_t out[kMaxLanes];
      op.run(in, out);
      for (int i = 0; i < ops.lanes; ++i) {
        const int64_t expected = kIntegerContracts.at(op.name)(in, ops.lanes, ops.taps, i);
        expect(variant + " " + op.name, i, static_cast<uint32_t>(out[i]),
               static_cast<uint32_t>(expected));
      }
    }
  }
}

}  // namespace

int main() {
  const std::map<std::string, const RegisterOps*> built = {
#define V(isa) {#isa, &quibo_test::isa},
      QUIBO_VARIANTS
#undef V
  };
  for (int i = 0; const quibo::Kernels* k = quibo::available_kernels(i); ++i) {
    const RegisterOps& ops = *built.at(k->name);
    check_floats(k->name, ops);
    check_integers(k->name, ops);
    printf("%s: %d operations of %d lanes, %d of %d lanes and %d taps\n", k->name, ops.float_count,
           ops.width, ops.integer_count, ops.lanes, ops.taps);
  }
  return failures > 0;
}
