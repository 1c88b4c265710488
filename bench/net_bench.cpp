// The neural suppressors: time per 64 ms frame on every instruction set, multiply-adds per second
// of the whole and of each layer, and how that compares with what this processor can do at most
// when multiply and add are separate instructions.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "aec/aec_denoise_net.h"
#include "denoise/denoise_net.h"
#include "dsp/kernels.h"
#include "nn/conv_layer.h"

namespace {

constexpr int kFrames = 64;  // of input, then over again
constexpr int kSteps = 2;    // per frame

// ---- Peak ------------------------------------------------------------------------------------
// Twelve independent sums hide the latency of the addition; every product is its own instruction.

#define REPEAT12(one)                                                                       \
  one("0") one("1") one("2") one("3") one("4") one("5") one("6") one("7") one("8") one("9") \
      one("10") one("11")

#if defined(__x86_64__)
#define VEX(r) "vmulps %%" r "mm15, %%" r "mm15, %%" r "mm12\n"
#define MAC128(k) "movaps %%xmm15, %%xmm12\nmulps %%xmm15, %%xmm12\naddps %%xmm12, %%xmm" k "\n"
#define MAC256(k) VEX("y") "vaddps %%ymm12, %%ymm" k ", %%ymm" k "\n"
#define MAC512(k) VEX("z") "vaddps %%zmm12, %%zmm" k ", %%zmm" k "\n"
#define REGISTERS                                                                          \
  "xmm0", "xmm1", "xmm2", "xmm3", "xmm4", "xmm5", "xmm6", "xmm7", "xmm8", "xmm9", "xmm10", \
      "xmm11", "xmm12"
void macs_128() {
  asm volatile(REPEAT12(MAC128)::: REGISTERS);
}
void macs_256() {
  asm volatile(REPEAT12(MAC256)::: REGISTERS);
}
void macs_512() {
  asm volatile(REPEAT12(MAC512)::: REGISTERS);
}
void leave_vex() {
  asm volatile("vzeroupper" ::: REGISTERS);
}
#elif defined(__aarch64__)
#define MAC128(k) "fmul v12.4s, v15.4s, v15.4s\nfadd v" k ".4s, v" k ".4s, v12.4s\n"
#define REGISTERS "v0", "v1", "v2", "v3", "v4", "v5", "v6", "v7", "v8", "v9", "v10", "v11", "v12"
void macs_128() {
  asm volatile(REPEAT12(MAC128)::: REGISTERS);
}
#endif

template <class Macs>
double measure_peak(const Macs& macs, int width) {
  double best = 0;
  for (int trial = 0; trial < 20; ++trial) {
    constexpr int kRounds = 200000;
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < kRounds; ++i) macs();
    const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
    best = std::max(best, 12.0 * width * kRounds / time.count());
  }
  return best;
}

// Multiply-adds per second at best, with the registers of a variant; 0 where it has none.
double peak_of(const std::string& variant) {
#if defined(__x86_64__)
  double peak = 0;
  if (variant == "sse2") return measure_peak(macs_128, 4);
  if (variant.find("avx512") == 0) {
    peak = measure_peak(macs_512, 16);
  } else if (variant.find("avx") == 0) {
    peak = measure_peak(macs_256, 8);
  }
  if (peak > 0) leave_vex();
  return peak;
#elif defined(__aarch64__)
  return variant == "neon" ? measure_peak(macs_128, 4) : 0;
#else
  (void)variant;
  return 0;
#endif
}

// ---- Rows ------------------------------------------------------------------------------------

struct Variant {
  std::string label, name;
  double peak;
};

double smallest(const std::vector<double>& values) {
  return *std::min_element(values.begin(), values.end());
}

// A row "what/quibo..." whose body runs `macs` multiply-adds per iteration.
template <class Body>
void add_row(const std::string& what, const Variant& variant, double macs, const Body& body) {
  benchmark::RegisterBenchmark((what + "/" + variant.label).c_str(),
                               [variant, macs, body](benchmark::State& state) {
                                 quibo::use_kernels(variant.name.c_str());
                                 body(state);
                                 const auto rate = benchmark::Counter::kIsIterationInvariantRate;
                                 state.counters["MAC/s"] = benchmark::Counter(macs, rate);
                                 if (variant.peak > 0) {
                                   state.counters["of_peak"] =
                                       benchmark::Counter(macs / variant.peak, rate);
                                 }
                               })
      ->Unit(benchmark::kMicrosecond)
      ->ComputeStatistics("min", smallest);
}

std::vector<float> random_floats(size_t count, float limit) {
  std::mt19937 random(1);
  std::uniform_real_distribution<float> uniform(-limit, limit);
  std::vector<float> values(count);
  for (float& v : values) v = uniform(random);
  return values;
}

std::vector<int16_t> noise() {
  std::vector<int16_t> x;
  for (float v : random_floats(kFrames * QUIBO_FRAME, 8000.0f)) {
    x.push_back(static_cast<int16_t>(v));
  }
  return x;
}

void ns(benchmark::State& state) {
  const std::vector<int16_t> in = noise();
  void* handle;
  QuibAncInit(&handle, 0.3f);
  int16_t out[QUIBO_FRAME];
  for (int f = 0; f < 3; ++f) QuibAncRun(handle, in.data(), out);
  int f = 0;
  for (auto _ : state) {
    QuibAncRun(handle, &in[f * QUIBO_FRAME], out);
    f = (f + 1) % kFrames;
    benchmark::ClobberMemory();
  }
  QuibAncUnit(&handle);
}

void naec(benchmark::State& state) {
  const std::vector<float> mic = random_floats(kFrames * QUIBO_FRAME, 0.3f), yn = mic;
  AEC_Denoise_Net net = {};  // without the handle, whose creation prints
  init_aec_denoise_net(&net, quibo::kAecDenoiseTables);
  int16_t out[QUIBO_FRAME];
  int f = 0;
  for (auto _ : state) {
    nn_aec_denoise_forward_frame(&net, &mic[f * QUIBO_FRAME], &yn[(kFrames - 1 - f) * QUIBO_FRAME],
                                 out);
    f = (f + 1) % kFrames;
    benchmark::ClobberMemory();
  }
  destroy_aec_denoise_net(&net);
}

// One convolution on its window (for stride 2 the split one), both steps of a frame.
template <class Input, int channels>
void layer(benchmark::State& state) {
  alignas(
      64) static float input[std::max(Input::window_floats(kSteps), Input::split_floats(kSteps))];
  for (float& v : input) v = 0.1f;
  const std::vector<float> weight = random_floats(channels * Input::kTaps, 0.1f);
  const std::vector<float> bias = random_floats(channels, 0.1f), slope = bias;
  std::vector<float> output(kSteps * channels * Input::kOutputs);
  quibo::ConvJob job = Input::job(input, kSteps);
  job.weight = weight.data();
  job.bias = bias.data();
  job.prelu = slope.data();
  job.out_channels = channels;
  job.output = output.data();
  job.output_stride = Input::kOutputs;
  job.output_step = channels * Input::kOutputs;
  const quibo::FloatKernels& run = quibo::kernels().net;
  for (auto _ : state) {
    run.conv(job);
    benchmark::ClobberMemory();
  }
}

template <class Input, int channels>
void add_layer(const std::string& what, const Variant& variant) {
  add_row(what, variant, 1.0 * kSteps * channels * Input::kTaps * Input::kOutputs,
          layer<Input, channels>);
}

constexpr double gru_macs(int H) {
  return 7.0 * H * H * quibo::kGruPositions * kSteps;  // six gate halves and the linear layer
}

template <int H>
void gru(benchmark::State& state, void (*quibo::GruKernels::*block)(const quibo::GruJob&)) {
  const std::vector<float> w = random_floats(2 * H * H, 0.1f), b = random_floats(H, 0.1f),
                           x = random_floats(kSteps * H * quibo::kGruPositions, 1.0f);
  std::vector<float> states(H * quibo::kGruPositions), y(x.size());
  alignas(64) static float scratch[quibo::gru_scratch(H)];
  const quibo::GruJob job = {w.data(), w.data(),      w.data(), w.data() + H, 2 * H,    b.data(),
                             b.data(), b.data(),      b.data(), w.data(),     b.data(), nullptr,
                             nullptr,  states.data(), x.data(), y.data(),     kSteps,   scratch};
  const quibo::FloatKernels& run = quibo::kernels().net;
  for (auto _ : state) {
    ((H == 32 ? run.denoise_gru : run.aec_gru).*block)(job);
    benchmark::ClobberMemory();
  }
}

template <int H>
void add_gru(const std::string& net, const Variant& variant) {
  add_row(net + ":time_gru", variant, gru_macs(H),
          [](benchmark::State& s) { gru<H>(s, &quibo::GruKernels::time); });
  add_row(net + ":freq_gru", variant, gru_macs(H),
          [](benchmark::State& s) { gru<H>(s, &quibo::GruKernels::frequency); });
}

// Multiply-adds of a frame, from the layers' shapes.
constexpr double kNsMacs =
    kSteps * (16 * 20 * 256 + 32 * 144 * 128 + 32 * 288 * (64 + 32) + 32 * 288 * 32 +
              32 * 144 * 64 + 16 * 144 * 128 + 4 * 72 * 256) +
    6 * gru_macs(32);
constexpr double kNaecMacs =
    kSteps * (16 * 24 * 256 + 32 * 96 * 128 + 48 * 192 * 64 + 64 * 288 * 32 + 8 * 64 * 576 * 32 +
              64 * 384 * 32 + 32 * 192 * 64 + 16 * 96 * 128 + 4 * 48 * 256 + 4 * 512 * 8) +
    6 * gru_macs(64);

void add_rows(const Variant& v) {
  using quibo::ConvInput;
  add_row("ns", v, kNsMacs, ns);
  add_row("naec", v, kNaecMacs, naec);
  add_layer<ConvInput<16, 256, 3, 2, 2>, 32>("ns:inp_conv2", v);
  add_layer<ConvInput<32, 128, 3, 2, 2>, 32>("ns:inp_conv3", v);
  add_layer<ConvInput<32, 64, 3, 2, 2>, 32>("ns:inp_conv4", v);
  add_gru<32>("ns", v);
  add_layer<ConvInput<32, 32, 3, 1, 2>, 32>("ns:sub_pix_conv1", v);
  add_layer<ConvInput<16, 64, 3, 1, 2>, 32>("ns:sub_pix_conv2", v);
  add_layer<ConvInput<16, 128, 3, 1, 2>, 16>("ns:sub_pix_conv3", v);
  add_layer<ConvInput<8, 256, 3, 1, 2>, 4>("ns:sub_pix_conv4", v);
  add_layer<ConvInput<4, 512, 2, 2, 2>, 16>("naec:inp_conv1", v);
  add_layer<ConvInput<16, 256, 2, 2, 2>, 32>("naec:inp_conv2", v);
  add_layer<ConvInput<32, 128, 2, 2, 2>, 48>("naec:inp_conv3", v);
  add_layer<ConvInput<48, 64, 2, 2, 2>, 64>("naec:inp_conv4", v);
  add_layer<ConvInput<64, 32, 3, 1, 3>, 64>("naec:enc_conv", v);
  add_gru<64>("naec", v);
  add_layer<ConvInput<64, 32, 2, 1, 2>, 64>("naec:sub_pix_conv1", v);
  add_layer<ConvInput<32, 64, 2, 1, 2>, 32>("naec:sub_pix_conv2", v);
  add_layer<ConvInput<16, 128, 2, 1, 2>, 16>("naec:sub_pix_conv3", v);
  add_layer<ConvInput<8, 256, 2, 1, 2>, 4>("naec:sub_pix_conv4", v);
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  const std::string chosen = quibo::kernels().name;
  std::vector<Variant> variants = {{"quibo", chosen, peak_of(chosen)}};
  for (int i = 0; const quibo::Kernels* k = quibo::available_kernels(i); ++i) {
    variants.push_back({std::string("quibo:") + k->name, k->name, peak_of(k->name)});
  }
  for (const Variant& v : variants) {
    if (v.peak > 0)
      benchmark::AddCustomContext("peak " + v.label, std::to_string(v.peak / 1e9) + " GMAC/s");
    add_rows(v);
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
