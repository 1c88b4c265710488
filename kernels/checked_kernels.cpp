#include "kernels/checked_kernels.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "aec/Laec.h"
#include "doa/ring_doa.h"

namespace quibo {

extern const Kernels kernels_scalar;

namespace {

const Kernels* checked;  // the variant under test

// What a kernel may write. Scratch is not part of it.
struct Span {
  void* data;
  size_t size;

  Span(float* p, int count) : data(p), size(static_cast<size_t>(count) * sizeof *p) {}
  Span(int32_t* p, int count) : data(p), size(static_cast<size_t>(count) * sizeof *p) {}
  Span(uint8_t* p, int count) : data(p), size(static_cast<size_t>(count)) {}
  Span(LAEC* p) : data(p), size(sizeof *p) {}
};

uint32_t bits_at(const void* data, size_t offset) {
  uint32_t bits;
  memcpy(&bits, static_cast<const char*>(data) + offset, sizeof bits);
  return bits;
}

bool is_nan(uint32_t bits) {
  return (bits & 0x7fffffffu) > 0x7f800000u;
}

// NaNs of different bits are equal: which operand's a sum of two of them keeps is up to the
// compiler.
bool same(const void* a, const void* b, size_t size) {
  if (memcmp(a, b, size) == 0) return true;
  if (size % sizeof(float) != 0) return false;
  for (size_t i = 0; i < size; i += sizeof(float)) {
    const uint32_t x = bits_at(a, i), y = bits_at(b, i);
    if (x != y && !(is_nan(x) && is_nan(y))) return false;
  }
  return true;
}

void* copy_of(const Span& span) {
  void* copy = malloc(span.size);
  if (!copy) abort();
  memcpy(copy, span.data, span.size);
  return copy;
}

// Ends the process where a call asks for a shape that kernels.h does not allow.
void require(bool allowed, const char* kernel) {
  if (allowed) return;
  fprintf(stderr, "quibo: %s is called with a shape it does not take\n", kernel);
  abort();
}

// Runs the variant's kernel, puts its outputs back as they were (they may be inputs) and runs the
// scalar one, whose results stay.
template <class Run, int count>
void compare(const char* kernel, const Span (&outputs)[count], const Run& run) {
  void *before[count], *result[count];
  for (int i = 0; i < count; ++i) before[i] = copy_of(outputs[i]);
  run(*checked);
  for (int i = 0; i < count; ++i) result[i] = copy_of(outputs[i]);
  for (int i = 0; i < count; ++i) {
    memcpy(outputs[i].data, before[i], outputs[i].size);
  }
  run(kernels_scalar);
  for (int i = 0; i < count; ++i) {
    if (!same(outputs[i].data, result[i], outputs[i].size)) {
      fprintf(stderr, "quibo: %s of %s differs from the scalar kernel\n", kernel, checked->name);
      abort();
    }
    free(before[i]);
    free(result[i]);
  }
}

// ---- Transforms and canceller ----------------------------------------------------------------

template <FftKernels Kernels::*fft, int n>
void forward(const float* samples, float* bins) {
  compare("fft forward", {{bins, n + 2}},
          [=](const Kernels& k) { (k.*fft).forward(samples, bins); });
}

template <FftKernels Kernels::*fft, int n>
void inverse(const float* bins, float* samples) {
  compare("fft inverse", {{samples, n}},
          [=](const Kernels& k) { (k.*fft).inverse(bins, samples); });
}

template <FftKernels Kernels::*fft, int n>
constexpr FftKernels checked_fft() {
  return {forward<fft, n>, inverse<fft, n>};
}

template <void (*LaecKernels::*kernel)(LAEC*)>
void canceller(LAEC* st) {
  compare("canceller", {{st}}, [=](const Kernels& k) { (k.laec.*kernel)(st); });
}

float laec_energy(const float* x, int len) {
  require(len % 4 == 0, "energy");
  float sum = 0.0f;
  compare("energy", {{&sum, 1}}, [&](const Kernels& k) { sum = k.laec.energy(x, len); });
  return sum;
}

// ---- Float networks --------------------------------------------------------------------------

float arr_mul_arr_float(const float* in1, const float* in2, int len) {
  require(len % 4 == 0, "arr_mul_arr_float");
  float sum = 0.0f;
  compare("arr_mul_arr_float", {{&sum, 1}},
          [&](const Kernels& k) { sum = k.net.arr_mul_arr_float(in1, in2, len); });
  return sum;
}

void mat_mul_vec_float(float* out, const float* mat, const float* vec, int M, int N) {
  require(M % 4 == 0 && N % 4 == 0, "mat_mul_vec_float");
  compare("mat_mul_vec_float", {{out, M}},
          [=](const Kernels& k) { k.net.mat_mul_vec_float(out, mat, vec, M, N); });
}

void act_h(float* out, const float* in, int len, Activation flag) {
  compare("act_h", {{out, len}}, [=](const Kernels& k) { k.net.act_h(out, in, len, flag); });
}

void vec_act_h(float* out, const float* in, int len, Activation flag) {
  compare("vec_act_h", {{out, len}},
          [=](const Kernels& k) { k.net.vec_act_h(out, in, len, flag); });
}

void conv(const ConvJob& job) {
  require(job.taps % 4 == 0 && job.taps <= kConvMaxTaps && job.out_channels % 4 == 0 &&
              job.positions % 32 == 0 && job.steps >= 1,
          "conv");
  const int written = (job.steps - 1) * job.output_step +
                      (job.out_channels - 1) * job.output_stride + job.positions;
  compare("conv", {{job.output, written}}, [&](const Kernels& k) { k.net.conv(job); });
}

void split_columns(float* even, float* odd, const float* row, int pairs) {
  compare("split_columns", {{even, pairs}, {odd, pairs}},
          [=](const Kernels& k) { k.net.split_columns(even, odd, row, pairs); });
}

void join_columns(float* row, const float* even, const float* odd, int pairs) {
  compare("join_columns", {{row, 2 * pairs}},
          [=](const Kernels& k) { k.net.join_columns(row, even, odd, pairs); });
}

void bin_groups(float* out, const float* weight, const float* bias, const float* in) {
  compare("bin_groups", {{out, 512}},
          [=](const Kernels& k) { k.net.bin_groups(out, weight, bias, in); });
}

template <GruKernels FloatKernels::*network, int H>
void time_gru(const GruJob& job) {
  require(job.steps == 1 || job.steps == 2, "time_gru");
  compare("time_gru", {{job.output, job.steps * H * kGruPositions}, {job.state, H * kGruPositions}},
          [&](const Kernels& k) { (k.net.*network).time(job); });
}

template <GruKernels FloatKernels::*network, int H>
void frequency_gru(const GruJob& job) {
  require(job.steps == 1 || job.steps == 2, "frequency_gru");
  const Span state = job.state ? Span{job.state, H} : Span{job.output, 1};
  compare("frequency_gru", {{job.output, job.steps * H * kGruPositions}, state},
          [&](const Kernels& k) { (k.net.*network).frequency(job); });
}

// ---- Direction estimator and quantised layers ------------------------------------------------

void phase_transform(const complex_t* a, const complex_t* b, complex_t* g) {
  compare("phase_transform", {{&g->real, 2 * DOA_BINS}},
          [=](const Kernels& k) { k.doa.phase_transform(a, b, g); });
}

void depthwise(const float* const* inputs, const float* weights, int taps, int channels,
               float* out) {
  require((taps == 8 || taps == 9) && channels >= kDoaMinChannels, "depthwise");
  compare("depthwise", {{out, channels}},
          [=](const Kernels& k) { k.doa.depthwise(inputs, weights, taps, channels, out); });
}

void mat_vec(const uint8_t* in, const int8_t* weight, const int32_t* bias, int rows, int depth,
             int32_t* out) {
  require(rows >= kInt8MinCount && depth >= kInt8MinDepth && depth <= kInt8MaxDepth, "mat_vec");
  compare("mat_vec", {{out, rows}},
          [=](const Kernels& k) { k.int8.mat_vec(in, weight, bias, rows, depth, out); });
}

void mat_mul(const uint8_t* in, int positions, const int8_t* weight, const int32_t* bias, int rows,
             int depth, int32_t* out) {
  require(positions % 3 == 0 && rows % 16 == 0 && depth % 4 == 0 &&
              rows * depth <= kInt8MaxSmallWeights,
          "mat_mul");
  compare("mat_mul", {{out, positions * rows}},
          [=](const Kernels& k) { k.int8.mat_mul(in, positions, weight, bias, rows, depth, out); });
}

void per_channel(const uint8_t* in, const int8_t* weight, const int32_t* bias, int channels,
                 int32_t* out) {
  require(channels >= kInt8MinCount, "per_channel");
  compare("per_channel", {{out, channels}},
          [=](const Kernels& k) { k.int8.per_channel(in, weight, bias, channels, out); });
}

void requantise(const int32_t* sums, int count, const Requantiser& q, uint8_t* out) {
  require(count >= kInt8MinCount, "requantise");
  compare("requantise", {{out, count}},
          [&](const Kernels& k) { k.int8.requantise(sums, count, q, out); });
}

void add_rescaled(const uint8_t* first, int32_t first_zero, const uint8_t* second,
                  int32_t second_zero, float multiplier, int count, int32_t* out) {
  require(count >= kInt8MinCount, "add_rescaled");
  compare("add_rescaled", {{out, count}}, [=](const Kernels& k) {
    k.int8.add_rescaled(first, first_zero, second, second_zero, multiplier, count, out);
  });
}

Kernels row = {
    nullptr,
    checked_fft<&Kernels::fft512, 512>(),
    checked_fft<&Kernels::fft1024, 1024>(),
    checked_fft<&Kernels::fft2048, 2048>(),
    {canceller<&LaecKernels::estimate_echo>, canceller<&LaecKernels::adapt>,
     canceller<&LaecKernels::update_gain>, canceller<&LaecKernels::apply_gain>, laec_energy},
    {arr_mul_arr_float,
     mat_mul_vec_float,
     act_h,
     vec_act_h,
     conv,
     split_columns,
     join_columns,
     bin_groups,
     {time_gru<&FloatKernels::denoise_gru, 32>, frequency_gru<&FloatKernels::denoise_gru, 32>},
     {time_gru<&FloatKernels::aec_gru, 64>, frequency_gru<&FloatKernels::aec_gru, 64>}},
    {phase_transform, depthwise},
    {mat_vec, mat_mul, per_channel, requantise, add_rescaled}};

}  // namespace

const Kernels& checked_kernels(const Kernels& variant) {
  checked = &variant;
  row.name = variant.name;
  return row;
}

}  // namespace quibo
