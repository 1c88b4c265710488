// Time per 30 ms step of the wake-up engine, whole and split into features and network, and per
// quantised product beside oneDNN, on every instruction set.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "dsp/kernels.h"
#include "wakeup/ChineseConv.h"
#include "wakeup/decoder.h"
#include "wakeup/features.h"
#include "wakeup/layers.h"
#if defined(QUIBO_BENCH_DNNL)
#include <oneapi/dnnl/dnnl.hpp>
#endif

namespace {

constexpr int kBlocks = 64;

double smallest(const std::vector<double>& values) {
  return *std::min_element(values.begin(), values.end());
}

benchmark::internal::Benchmark* add_row(const std::string& name,
                                        std::function<void(benchmark::State&)> body) {
  return benchmark::RegisterBenchmark(name.c_str(), std::move(body))
      ->ComputeStatistics("min", smallest);
}

// ---- The engine ----

class Engine {
 public:
  Engine() : p_(static_cast<KTCWakeupParam*>(malloc(sizeof(KTCWakeupParam)))) {
    KestoChineseWakeupInit(p_);
    std::mt19937 random(1);
    std::normal_distribution<float> normal(0.0f, 1000.0f);
    samples_.resize(kBlocks * KWS_BLOCK);
    for (auto& v : samples_) v = static_cast<int16_t>(normal(random));
  }
  ~Engine() { KestoChineseWakeupUnit(p_); }

  void step() { KestoChineseWakeupWrite(p_, next()); }
  void features() {
    LAYER_DATA* data = p_->mynet.dlayer;
    quibo::wakeup::push_samples(data, next());
    quibo::wakeup::cal_block_feature_int8(data);
    quibo::wakeup::convert_input_data(data, p_->mynet.m1_conv1);
  }
  void network() { quibo::wakeup::network_forward_int8(&p_->mynet); }
  void decoder() {
    quibo::wakeup::post_score_augument(&p_->mynet);
    quibo::wakeup::run_decoder(&p_->mynet);
  }

 private:
  const int16_t* next() {
    block_ = (block_ + 1) % kBlocks;
    return samples_.data() + block_ * KWS_BLOCK;
  }

  KTCWakeupParam* p_;
  std::vector<int16_t> samples_;
  int block_ = 0;
};

void add_engine_row(const std::string& name, const std::string& variant, void (Engine::*part)()) {
  add_row(name, [=](benchmark::State& state) {
    quibo::use_kernels(variant.c_str());
    Engine engine;
    for (auto _ : state) {
      (engine.*part)();
      benchmark::ClobberMemory();
    }
  })->Unit(benchmark::kMicrosecond);
}

// ---- One quantised product: [positions][depth] codes, [rows][depth] weights ----

struct Product {
  int rows, depth, positions;

  Product(int r, int d, int p)
      : rows(r), depth(d), positions(p), in(p * d), weight(r * d), bias(r), out(p * r) {
    std::mt19937 random(1);
    for (auto& v : in) v = static_cast<uint8_t>(random());
    for (auto& v : weight) v = static_cast<int8_t>(random());
    for (auto& v : bias) v = static_cast<int32_t>(random() % 1000);
  }
  void count(benchmark::State& state) const {
    state.counters["GMAC/s"] = benchmark::Counter(1e-9 * rows * depth * positions,
                                                  benchmark::Counter::kIsIterationInvariantRate);
  }

  std::vector<uint8_t> in;
  std::vector<int8_t> weight;
  std::vector<int32_t> bias, out;
};

void add_product_rows(int rows, int depth, int positions, const std::string& best) {
  const std::string name =
      std::to_string(rows) + "x" + std::to_string(depth) + "x" + std::to_string(positions) + "/";
  const auto add = [&](const std::string& row, const std::string& variant) {
    add_row(row, [=](benchmark::State& state) {
      quibo::use_kernels(variant.c_str());
      const quibo::Int8Kernels& run = quibo::kernels().int8;
      Product p(rows, depth, positions);
      for (auto _ : state) {
        if (positions == 1) {
          run.mat_vec(p.in.data(), p.weight.data(), p.bias.data(), rows, depth, p.out.data());
        } else {
          run.mat_mul(p.in.data(), positions, p.weight.data(), p.bias.data(), rows, depth,
                      p.out.data());
        }
        benchmark::ClobberMemory();
      }
      p.count(state);
    });
  };
  add(name + "quibo", best);
  for (int i = 0; const quibo::Kernels* k = quibo::available_kernels(i); ++i) {
    add(name + "quibo:" + k->name, k->name);
  }
#if defined(QUIBO_BENCH_DNNL)
  // Weights reordered beforehand into the layout that the library picks.
  add_row(name + "onednn", [=](benchmark::State& state) {
    using namespace dnnl;
    using tag = memory::format_tag;
    Product p(rows, depth, positions);
    const engine cpu(engine::kind::cpu, 0);
    stream run(cpu);
    const memory::desc in({positions, depth}, memory::data_type::u8, tag::ab);
    const memory::desc plain({depth, rows}, memory::data_type::s8, tag::ba);
    const memory::desc any({depth, rows}, memory::data_type::s8, tag::any);
    const memory::desc bias({1, rows}, memory::data_type::s32, tag::ab);
    const memory::desc out({positions, rows}, memory::data_type::s32, tag::ab);
    const matmul::primitive_desc chosen({in, any, bias, out}, cpu);
    memory weights(chosen.weights_desc(), cpu);
    memory given(plain, cpu, p.weight.data());
    reorder(given, weights).execute(run, given, weights);
    memory from(in, cpu, p.in.data()), add(bias, cpu, p.bias.data()), to(out, cpu, p.out.data());
    const matmul product(chosen);
    const std::unordered_map<int, memory> arguments = {{DNNL_ARG_SRC, from},
                                                       {DNNL_ARG_WEIGHTS, weights},
                                                       {DNNL_ARG_BIAS, add},
                                                       {DNNL_ARG_DST, to}};
    for (auto _ : state) {
      product.execute(run, arguments);
      run.wait();
    }
    const std::vector<int32_t> theirs = p.out;
    for (int i = 0; i < positions; ++i) {
      for (int r = 0; r < rows; ++r) {
        int32_t sum = p.bias[r];
        for (int k = 0; k < depth; ++k) sum += p.in[i * depth + k] * p.weight[r * depth + k];
        if (sum != theirs[i * rows + r]) state.SetLabel("inexact");
      }
    }
    p.count(state);
  });
#endif
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  const std::string best = quibo::kernels().name;
  for (auto [part, run] :
       {std::pair{"step/", &Engine::step}, std::pair{"features/", &Engine::features},
        std::pair{"network/", &Engine::network}, std::pair{"decoder/", &Engine::decoder}}) {
    add_engine_row(std::string(part) + "quibo", best, run);
    for (int i = 0; const quibo::Kernels* k = quibo::available_kernels(i); ++i) {
      add_engine_row(std::string(part) + "quibo:" + k->name, k->name, run);
    }
  }
  add_product_rows(384, 128, 1, best);
  add_product_rows(164, 256, 1, best);
  add_product_rows(256, 164, 1, best);
  add_product_rows(146, 256, 1, best);
  add_product_rows(48, 16, 24, best);
  add_product_rows(64, 48, 9, best);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
