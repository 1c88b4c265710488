// One unit per instruction set: ISA is its name, REGISTERS the header that has its float and integer
// registers FLOAT and INTEGER.

#include "register_ops.h"

#include REGISTERS

namespace quibo_test {
namespace {

using V = quibo::FLOAT;
using Four = V::Four;
using I = quibo::INTEGER;

V::Reg reg(const float* in, int i) {
  return V::load(in + i * V::kWidth);
}

#define TO_REGISTER(name, result)                                    \
  {                                                                  \
    name, [](const float* in, float* out) { V::store(out, result); } \
  }

constexpr FloatOp kFloatOps[] = {
    TO_REGISTER("load and store", reg(in, 0)),
    TO_REGISTER("splat", V::splat(in[1])),
    TO_REGISTER("add", V::add(reg(in, 0), reg(in, 1))),
    TO_REGISTER("sub", V::sub(reg(in, 0), reg(in, 1))),
    TO_REGISTER("mul", V::mul(reg(in, 0), reg(in, 1))),
    TO_REGISTER("div", V::div(reg(in, 0), reg(in, 1))),
    TO_REGISTER("sqrt", V::sqrt(reg(in, 0))),
    TO_REGISTER("larger", V::larger(reg(in, 0), reg(in, 1))),
    TO_REGISTER("smaller", V::smaller(reg(in, 0), reg(in, 1))),
    TO_REGISTER("where_greater",
                V::where_greater(reg(in, 0), reg(in, 1), reg(in, 2), reg(in, 3))),
    TO_REGISTER("shift_to_exponent", V::shift_to_exponent(reg(in, 0))),
    TO_REGISTER("reverse", V::reverse(reg(in, 0))),
    TO_REGISTER("lead<1>", V::lead<1>(reg(in, 0), reg(in, 1))),
    TO_REGISTER("lead<4>", V::lead<4>(reg(in, 0), reg(in, 1))),
    TO_REGISTER("load_repeat4", V::load_repeat4(in)),
    {"load_pairs",
     [](const float* in, float* out) {
       V::Reg re, im;
       V::load_pairs(in, re, im);
       V::store(out, re);
       V::store(out + V::kWidth, im);
     }},
    {"store_pairs",
     [](const float* in, float* out) { V::store_pairs(out, reg(in, 0), reg(in, 1)); }},
    {"store_columns",
     [](const float* in, float* out) {
       V::store_columns(out, reg(in, 0), reg(in, 1), reg(in, 2), reg(in, 3));
     }},
    {"store_quads",
     [](const float* in, float* out) {
       V::store_quads(out, reg(in, 0), reg(in, 1), reg(in, 2), reg(in, 3));
     }},
    {"four: sum of products",
     [](const float* in, float* out) {
       const Four::Reg product = Four::mul(Four::load(in), Four::load(in + 4));
       out[0] = Four::fold(Four::add(Four::splat(in[8]), product));
     }},
    {"four: transpose",
     [](const float* in, float* out) {
       Four::Reg x0 = Four::load(in), x1 = Four::load(in + 4), x2 = Four::load(in + 8),
                 x3 = Four::load(in + 12);
       Four::transpose(x0, x1, x2, x3);
       Four::store(out, x0);
       Four::store(out + 4, x1);
       Four::store(out + 8, x2);
       Four::store(out + 12, x3);
     }},
};

constexpr IntegerOp kIntegerOps[] = {
    {"load and store", [](const Integers& in, int32_t* out) { I::store(out, I::load(in.a)); }},
    {"splat", [](const Integers& in, int32_t* out) { I::store(out, I::splat(in.a[0])); }},
    {"add",
     [](const Integers& in, int32_t* out) { I::store(out, I::add(I::load(in.a), I::load(in.b))); }},
    {"pair_sums", [](const Integers& in,
                     int32_t* out) { I::store(out, I::pair_sums(I::load(in.a), I::load(in.b))); }},
    {"multiply_add",
     [](const Integers& in, int32_t* out) {
       I::store(out, I::multiply_add(I::load(in.a), I::load_codes(in.codes), in.weights));
     }},
    {"multiply_add of repeated codes",
     [](const Integers& in, int32_t* out) {
       I::store(out, I::multiply_add(I::load(in.a), I::repeat_codes(in.codes), in.weights));
     }},
    {"load_bytes",
     [](const Integers& in, int32_t* out) { I::store(out, I::load_bytes(in.codes)); }},
    {"store_bytes",
     [](const Integers& in, int32_t* out) {
       uint8_t bytes[kMaxLanes];
       I::store_bytes(bytes, I::load_bytes(in.codes));
       for (int i = 0; i < I::kLanes; ++i) out[i] = bytes[i];
     }},
    {"to_float",
     [](const Integers& in, int32_t* out) {
       float x[kMaxLanes];
       I::Float::store(x, I::to_float(I::load(in.a)));
       memcpy(out, x, I::kLanes * sizeof(float));
     }},
    {"round",
     [](const Integers& in, int32_t* out) { I::store(out, I::round(I::Float::load(in.x))); }},
};

}  // namespace

extern const RegisterOps ISA;
constexpr RegisterOps ISA = {
    V::kWidth, kFloatOps,   sizeof kFloatOps / sizeof *kFloatOps,    I::kLanes,
    I::kTaps,  kIntegerOps, sizeof kIntegerOps / sizeof *kIntegerOps};

}  // namespace quibo_test
