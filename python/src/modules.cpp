// The modules alone, over whole frames or blocks.
#include <nanobind/stl/optional.h>
#include <nanobind/stl/tuple.h>
#include <nanobind/stl/vector.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <optional>
#include <stdexcept>
#include <tuple>
#include <utility>
#include <vector>

#include "aec/aec_denoise_net.h"
#include "doa/ring_doa.h"
#include "engine.h"
#include "limiter/zq_MPO.h"
#include "records.h"
#include "wakeup/QuibWakeupApi.h"

namespace quibo::python {
namespace {

void require(bool fits) {
  if (!fits) throw std::invalid_argument("not the arrays of whole frames that the module takes");
}

// What the calls that take any length get at once: their counts are 32 bits wide.
constexpr size_t kPiece = QUIBO_FRAME;
int32_t piece(size_t rest) {
  return static_cast<int32_t>(std::min(rest, kPiece));
}

class LinearCanceller {
 public:
  LinearCanceller() : handle_(kesto_Laec_Post_init()) {
    if (!handle_) throw std::bad_alloc();
  }
  ~LinearCanceller() { kesto_Laec_Post_unit(handle_); }
  LinearCanceller(const LinearCanceller&) = delete;
  LinearCanceller& operator=(const LinearCanceller&) = delete;

  auto process(const Input<int16_t, 1>& mic, const Input<int16_t, 1>& ref) {
    const size_t n = mic.shape(0);
    require(ref.shape(0) == n && n % QUIBO_FRAME == 0);
    Output<float> out(1, n), delayed(1, n), echo(1, n);
    for_each(n / QUIBO_FRAME, [&](size_t k) {
      const size_t at = k * QUIBO_FRAME;
      kesto_Laec_Post_write(handle_, mic.data() + at, ref.data() + at, out.row(0) + at);
      constexpr size_t kBytes = QUIBO_FRAME * sizeof(float);
      std::memcpy(delayed.row(0) + at, kesto_laec_micdata(handle_), kBytes);
      std::memcpy(echo.row(0) + at, kesto_laec_yn(handle_), kBytes);
    });
    return std::make_tuple(out.vector(), delayed.vector(), echo.vector());
  }

 private:
  void* handle_;
};

class EchoSuppressor {
 public:
  EchoSuppressor() {
    const std::lock_guard<std::mutex> mine(turn());
    if (QuibNAecInit(&handle_) != 0) throw std::bad_alloc();
  }
  ~EchoSuppressor() { close(); }

  void close() {
    if (!handle_ || !only_->here()) return;
    const std::lock_guard<std::mutex> mine(turn());
    QuibNAecUnit(handle_);
    free_aec_denoise(handle_);
    handle_ = nullptr;
    only_.reset();
  }

  auto process(const Input<float, 1>& mic, const Input<float, 1>& echo) {
    require_open(only_);
    const size_t n = mic.shape(0);
    require(echo.shape(0) == n && n % QUIBO_FRAME == 0);
    Output<int16_t> out(1, n);
    for_each(n / QUIBO_FRAME, [&](size_t k) {
      const size_t at = k * QUIBO_FRAME;
      QuibNAecRun(handle_, mic.data() + at, echo.data() + at, out.row(0) + at);
    });
    return out.vector();
  }

 private:
  std::optional<OnlyOne> only_{std::in_place};
  void* handle_ = nullptr;
};

// Channels that take turns on one set of recurrent states, as the front end's three do. The set is
// this object's own, so that a front end beside it hears nothing of it.
class NoiseSuppressor {
 public:
  NoiseSuppressor(size_t channels, float floor) {
    const std::lock_guard<std::mutex> mine(turn());
    for (size_t c = 0; c < channels; ++c) {
      void* handle;
      if (QuibAncInit(&handle, floor) != 0) throw std::bad_alloc();
      handles_.push_back(handle);
      if (!static_cast<KTANCParams*>(handle)->Mynet->dlayer) throw std::bad_alloc();
      for (size_t i = 0; i < kNoiseLayers; ++i) noise_layer(handle, i)->prev_stat = states_[i];
    }
  }
  ~NoiseSuppressor() {
    for (void* handle : handles_) QuibAncUnit(&handle);
  }
  NoiseSuppressor(const NoiseSuppressor&) = delete;
  NoiseSuppressor& operator=(const NoiseSuppressor&) = delete;

  auto process(const Input<int16_t, 2>& samples) {
    const size_t n = samples.shape(1);
    require(samples.shape(0) == handles_.size() && n % QUIBO_FRAME == 0);
    Output<int16_t> out(handles_.size(), n);
    for_each(n / QUIBO_FRAME, [&](size_t k) {
      const size_t at = k * QUIBO_FRAME;
      for (size_t c = 0; c < handles_.size(); ++c) {
        QuibAncRun(handles_[c], samples.data() + c * n + at, out.row(c) + at);
      }
    });
    return out.matrix();
  }

 private:
  float states_[kNoiseLayers][kNoiseStates] = {};
  std::vector<void*> handles_;
};

class WakeUp {
 public:
  explicit WakeUp(double threshold) {
    if (QuibWakeupInit(&handle_, 0) != 0) throw std::bad_alloc();
    observer_.attach(*static_cast<KTWakeupParam*>(handle_)->handle0, threshold);
  }
  ~WakeUp() { QuibWakeupUnit(handle_); }
  WakeUp(const WakeUp&) = delete;
  WakeUp& operator=(const WakeUp&) = delete;

  auto process(const Input<int16_t, 1>& samples) {
    const size_t blocks = samples.shape(0) / QUIBO_BLOCK;
    require(samples.shape(0) % QUIBO_BLOCK == 0);
    Output<float> costs(1, blocks);
    std::vector<size_t> wakes;
    for_each(blocks, [&](size_t k) {
      if (QuibWakeupWriteData(handle_, samples.data() + k * QUIBO_BLOCK) == 0) wakes.push_back(k);
      costs.row(0)[k] = observer_.cost();
    });
    return std::make_tuple(costs.vector(), wakes);
  }

 private:
  Observer observer_;
  void* handle_ = nullptr;
};

class Direction {
 public:
  Direction() {
    if (init_doa_net(&net_) != 0) {
      destroy_doa_net(&net_);
      throw std::bad_alloc();
    }
  }
  ~Direction() { destroy_doa_net(&net_); }
  Direction(const Direction&) = delete;
  Direction& operator=(const Direction&) = delete;

  auto process(const Input<int16_t, 2>& mics) {
    const size_t n = mics.shape(1), blocks = n / QUIBO_BLOCK;
    require(mics.shape(0) == DOA_MICS && n % QUIBO_BLOCK == 0);
    Output<float> vectors(blocks, 2);
    for_each(blocks, [&](size_t k) {
      const int16_t* mic = mics.data() + k * QUIBO_BLOCK;
      proc_one_frame(&net_, mic, mic + n, mic + 2 * n, 0);
      std::memcpy(vectors.row(k), net_.dlayer->xy, sizeof net_.dlayer->xy);
    });
    return vectors.matrix();
  }

  std::optional<int> decide() {
    // The network's heading to the device's, as the front end has it.
    constexpr int kOffset = 30;
    const std::lock_guard<std::mutex> mine(turn());
    const int32_t heading = doa_decision(&net_);
    if (heading < 0) return std::nullopt;
    return (heading + kOffset) % 360;
  }

 private:
  DoaNet net_;
};

class Limiter {
 public:
  Limiter(int rate, int gain_db, int level_db) { zq_MPO_Init(&limiter_, rate, gain_db, level_db); }

  auto process(const Input<float, 1>& samples) {
    const size_t n = samples.shape(0);
    Output<float> out(1, n);
    for_each((n + kPiece - 1) / kPiece, [&](size_t k) {
      const size_t at = k * kPiece;
      zq_MPO_process(&limiter_, samples.data() + at, out.row(0) + at, nullptr, piece(n - at));
    });
    return out.vector();
  }

 private:
  stMPO limiter_;
};

template <void (*kCodec)(int16_t*, int32_t)>
auto coded(const Input<int16_t, 1>& samples) {
  const size_t n = samples.shape(0);
  Output<int16_t> out(1, n);
  std::memcpy(out.row(0), samples.data(), n * sizeof(int16_t));
  for (size_t at = 0; at < n; at += kPiece) kCodec(out.row(0) + at, piece(n - at));
  return out.vector();
}

}  // namespace

void bind_modules(nb::module_& m) {
  m.def("scramble", coded<enc_data>, nb::arg("samples"));
  m.def("unscramble", coded<dec_data>, nb::arg("samples"));
  nb::class_<LinearCanceller>(m, "LinearCanceller")
      .def(nb::init<>())
      .def("process", &LinearCanceller::process, nb::arg("mic"), nb::arg("ref"));
  nb::class_<EchoSuppressor>(m, "EchoSuppressor")
      .def(nb::init<>())
      .def("close", &EchoSuppressor::close)
      .def("process", &EchoSuppressor::process, nb::arg("mic"), nb::arg("echo"));
  nb::class_<NoiseSuppressor>(m, "NoiseSuppressor")
      .def(nb::init<size_t, float>(), nb::arg("channels"), nb::arg("floor"))
      .def("process", &NoiseSuppressor::process, nb::arg("samples"));
  nb::class_<WakeUp>(m, "WakeUp")
      .def(nb::init<double>(), nb::arg("threshold"))
      .def("process", &WakeUp::process, nb::arg("samples"));
  nb::class_<Direction>(m, "Direction")
      .def(nb::init<>())
      .def("process", &Direction::process, nb::arg("mics"))
      .def("decide", &Direction::decide);
  nb::class_<Limiter>(m, "Limiter")
      .def(nb::init<int, int, int>(), nb::arg("rate"), nb::arg("gain_db"), nb::arg("level_db"))
      .def("process", &Limiter::process, nb::arg("samples"));
}

}  // namespace quibo::python
