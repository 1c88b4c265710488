// The front end over whole frames.
#include <nanobind/stl/optional.h>
#include <nanobind/stl/tuple.h>
#include <nanobind/stl/vector.h>

#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "api/WakeupApi.h"
#include "engine.h"
#include "records.h"
#include "wakeup/QuibWakeupApi.h"

namespace quibo::python {
namespace {

constexpr size_t kMics = 3;

// Frame in which the phrase was heard, direction in degrees where there was one, cost.
using Wake = std::tuple<size_t, std::optional<int>, float>;

class FrontEnd {
 public:
  explicit FrontEnd(double threshold) {
    const std::lock_guard<std::mutex> mine(turn());
    const int32_t status = Quibo_wakeup_init(&handle_, 0);
    if (status != 0) {
      throw std::runtime_error("the front end could not be created (status " +
                               std::to_string(status) + ")");
    }
    // The library keeps the noise suppressors' states over a front end's life; here every front end
    // starts like the first.
    for (size_t i = 0; i < kNoiseLayers; ++i) {
      std::memset(noise_layer(handle_->DAncHnadle0, i)->prev_stat, 0, kNoiseStates * sizeof(float));
    }
    observer_.attach(*static_cast<KTWakeupParam*>(handle_->handle4)->handle0, threshold);
  }

  ~FrontEnd() { close(); }

  void close() {
    if (!handle_ || !only_->here()) return;
    const std::lock_guard<std::mutex> mine(turn());
    Quibo_wakeup_unit(handle_);
    handle_ = nullptr;
    only_.reset();
  }

  // mics [3, n] and ref [n], n whole frames; plain: the microphones are not scrambled yet.
  auto process(const Input<int16_t, 2>& mics, const Input<int16_t, 1>& ref, bool plain) {
    require_open(only_);
    const size_t samples = ref.shape(0);
    if (mics.shape(0) != kMics || mics.shape(1) != samples || samples % QUIBO_FRAME) {
      throw std::invalid_argument("not three microphones and a reference of whole frames");
    }
    Output<int16_t> outputs(kMics, samples), clean(1, samples);
    std::vector<Wake> wakes;
    for_each(samples / QUIBO_FRAME, [&](size_t k) {
      const size_t at = k * QUIBO_FRAME;
      int16_t scrambled[kMics][QUIBO_FRAME];
      int16_t* out[kMics];
      for (size_t m = 0; m < kMics; ++m) {
        std::memcpy(scrambled[m], mics.data() + m * samples + at, sizeof scrambled[m]);
        if (plain) enc_data(scrambled[m], QUIBO_FRAME);
        out[m] = outputs.row(m) + at;
      }
      int16_t* const cleaned = clean.row(0) + at;
      Quibo_wakeup_three_write_data(handle_, scrambled[0], scrambled[1], scrambled[2],
                                    ref.data() + at, out[0], out[1], out[2], cleaned);
      int32_t heard;
      const int32_t angle =
          Quibo_doa_three_write_data(handle_, &heard, out[0], out[1], out[2], cleaned, QUIBO_FRAME);
      if (heard < 0) return;
      wakes.emplace_back(k, angle >= 0 ? std::optional(angle) : std::nullopt,
                         observer_.cost_of_wake());
    });
    return std::make_tuple(outputs.matrix(), clean.vector(), wakes);
  }

 private:
  std::optional<OnlyOne> only_{std::in_place};
  Observer observer_;
  KTWakeup handle_ = nullptr;
};

}  // namespace

void bind_front_end(nb::module_& m) {
  nb::class_<FrontEnd>(m, "FrontEnd")
      .def(nb::init<double>(), nb::arg("threshold"))
      .def("close", &FrontEnd::close)
      .def("process", &FrontEnd::process, nb::arg("mics"), nb::arg("ref"), nb::arg("plain"),
           "(outputs [3, n], clean [n], [(frame, angle, cost)]) of whole frames");
}

}  // namespace quibo::python
