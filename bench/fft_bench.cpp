// Time per real transform of 512, 1024 and 2048 points: ours on every instruction set, and the
// libraries of the field, all on the same buffers. Ours scales the inverse, the others do not; all
// leave their input as it is and give the bins in natural order.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "dsp/fft.h"
#include "dsp/kernels.h"

#ifdef QUIBO_BENCH_FFTW
#include <fftw3.h>
#endif
#ifdef QUIBO_BENCH_KISSFFT
#include <kissfft/kiss_fftr.h>
#endif
#ifdef QUIBO_BENCH_PFFFT
#include <pffft.h>
#endif

namespace {

constexpr int kMaxLength = 2048;

// Aligned as the strictest library asks.
alignas(64) float samples[kMaxLength];
alignas(64) float bins[kMaxLength + 2];
alignas(64) float restored[kMaxLength];

class Transform {
 public:
  virtual ~Transform() = default;
  virtual void forward() = 0;  // samples to bins
  virtual void inverse() = 0;  // bins to restored
};

class Ours : public Transform {
 public:
  explicit Ours(const quibo::FftKernels& kernels) : kernels_(kernels) {}
  void forward() override { kernels_.forward(samples, bins); }
  void inverse() override { kernels_.inverse(bins, restored); }

 private:
  const quibo::FftKernels& kernels_;
};

#ifdef QUIBO_BENCH_FFTW
class Fftw : public Transform {
 public:
  explicit Fftw(int n)
      : forward_(fftwf_plan_dft_r2c_1d(n, samples, spectrum(), kEffort)),
        inverse_(fftwf_plan_dft_c2r_1d(n, spectrum(), restored, kEffort)) {}
  ~Fftw() override {
    fftwf_destroy_plan(forward_);
    fftwf_destroy_plan(inverse_);
  }
  void forward() override { fftwf_execute(forward_); }
  void inverse() override { fftwf_execute(inverse_); }

 private:
  static constexpr unsigned kEffort = FFTW_PATIENT | FFTW_PRESERVE_INPUT;
  static fftwf_complex* spectrum() { return reinterpret_cast<fftwf_complex*>(bins); }
  fftwf_plan forward_, inverse_;
};
#endif

#ifdef QUIBO_BENCH_KISSFFT
class KissFft : public Transform {
 public:
  explicit KissFft(int n)
      : forward_(kiss_fftr_alloc(n, 0, nullptr, nullptr)),
        inverse_(kiss_fftr_alloc(n, 1, nullptr, nullptr)) {}
  ~KissFft() override {
    kiss_fftr_free(forward_);
    kiss_fftr_free(inverse_);
  }
  void forward() override { kiss_fftr(forward_, samples, spectrum()); }
  void inverse() override { kiss_fftri(inverse_, spectrum(), restored); }

 private:
  static kiss_fft_cpx* spectrum() { return reinterpret_cast<kiss_fft_cpx*>(bins); }
  kiss_fftr_cfg forward_, inverse_;
};
#endif

#ifdef QUIBO_BENCH_PFFFT
class Pffft : public Transform {
 public:
  explicit Pffft(int n) : setup_(pffft_new_setup(n, PFFFT_REAL)) {}
  ~Pffft() override { pffft_destroy_setup(setup_); }
  void forward() override { pffft_transform_ordered(setup_, samples, bins, work_, PFFFT_FORWARD); }
  void inverse() override {
    pffft_transform_ordered(setup_, bins, restored, work_, PFFFT_BACKWARD);
  }

 private:
  PFFFT_Setup* setup_;
  alignas(64) float work_[kMaxLength];
};
#endif

double smallest(const std::vector<double>& values) {
  return *std::min_element(values.begin(), values.end());
}

// Rows "forward/n/library", "inverse/n/library" and "pair/n/library", the pair being a forward
// transform followed by the inverse.
void add_rows(const std::string& library, int n, std::shared_ptr<Transform> fft) {
  auto add = [&](const std::string& what, auto run) {
    const std::string name = what + "/" + std::to_string(n) + "/" + library;
    benchmark::RegisterBenchmark(name.c_str(), [fft, run](benchmark::State& state) {
      fft->forward();  // bins for the inverse
      for (auto _ : state) {
        run(*fft);
        benchmark::ClobberMemory();
      }
    })->ComputeStatistics("min", smallest);
  };
  add("forward", [](Transform& f) { f.forward(); });
  add("inverse", [](Transform& f) { f.inverse(); });
  add("pair", [](Transform& f) {
    f.forward();
    f.inverse();
  });
}

template <int n>
void add_length() {
  add_rows("quibo", n, std::make_shared<Ours>(quibo::fft_kernels<n>()));
  for (int i = 0; const quibo::Kernels* k = quibo::available_kernels(i); ++i) {
    const quibo::FftKernels& fft = n == 512 ? k->fft512 : n == 1024 ? k->fft1024 : k->fft2048;
    add_rows(std::string("quibo:") + k->name, n, std::make_shared<Ours>(fft));
  }
#ifdef QUIBO_BENCH_FFTW
  add_rows("fftw", n, std::make_shared<Fftw>(n));
#endif
#ifdef QUIBO_BENCH_KISSFFT
  add_rows("kissfft", n, std::make_shared<KissFft>(n));
#endif
#ifdef QUIBO_BENCH_PFFFT
  add_rows("pffft", n, std::make_shared<Pffft>(n));
#endif
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  add_length<512>();
  add_length<1024>();
  add_length<2048>();
  std::mt19937 random(1);  // after the planning, which writes to the buffers
  std::normal_distribution<float> normal;
  for (float& x : samples) x = normal(random);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
