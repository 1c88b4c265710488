// The front end over whole frames.
#include <nanobind/stl/optional.h>
#include <nanobind/stl/tuple.h>
#include <nanobind/stl/vector.h>

#include <cstring>
#include <optional>
#include <stdexcept>
#include <tuple>
#include <utility>
#include <vector>

#include "engine.h"
#include "tools/quibo/front_end.h"

namespace quibo::python {
namespace {

using recordings::kMics;
using recordings::kRef;

// End of the frame, start and end of the phrase, cost, angle and length of its vector.
using Wake = std::tuple<int64_t, double, double, float, std::optional<int>, std::optional<float>>;

Wake to_wake(const recordings::Wake& wake) {
  const bool angle = wake.angle >= 0;
  return {wake.sample,
          wake.start,
          wake.end,
          wake.cost,
          angle ? std::optional(wake.angle) : std::nullopt,
          angle ? std::optional(wake.angle_length) : std::nullopt};
}

class FrontEnd {
 public:
  explicit FrontEnd(double threshold) {
    const std::lock_guard<std::mutex> mine(turn());
    front_end_.emplace(recordings::FrontEndOptions{threshold, false});
  }
  ~FrontEnd() { close(); }

  void close() {
    if (!front_end_ || !only_->here()) return;
    const std::lock_guard<std::mutex> mine(turn());
    front_end_.reset();
    only_.reset();
  }

  // mics [3, n] and ref [n], n whole frames; scrambled: the microphones are in the codec's encoding.
  auto process(const Input<int16_t, 2>& mics, const Input<int16_t, 1>& ref, bool scrambled) {
    require_open(only_);
    const size_t samples = ref.shape(0);
    if (mics.shape(0) != kMics || mics.shape(1) != samples || samples % QUIBO_FRAME) {
      throw std::invalid_argument("not three microphones and a reference of whole frames");
    }
    Output<int16_t> outputs(kMics, samples), clean(1, samples);
    std::vector<Wake> wakes;
    for_each(samples / QUIBO_FRAME, [&](size_t k) {
      const size_t at = k * QUIBO_FRAME;
      recordings::Frame frame;
      recordings::Output output;
      frame.samples = QUIBO_FRAME;
      for (size_t m = 0; m < kMics; ++m) {
        std::memcpy(frame.track[m], mics.data() + m * samples + at, sizeof frame.track[m]);
        if (scrambled) dec_data(frame.track[m], QUIBO_FRAME);
      }
      std::memcpy(frame.track[kRef], ref.data() + at, sizeof frame.track[kRef]);
      front_end_->process(frame, &output);
      for (size_t m = 0; m < kMics; ++m) {
        std::memcpy(outputs.row(m) + at, output.mic[m], sizeof output.mic[m]);
      }
      std::memcpy(clean.row(0) + at, output.clean, sizeof output.clean);
      if (output.wake) wakes.push_back(to_wake(*output.wake));
    });
    const auto restarts =
        std::make_tuple(front_end_->restarts(0), front_end_->restarts(1), front_end_->restarts(2));
    return std::make_tuple(outputs.matrix(), clean.vector(), wakes, restarts);
  }

 private:
  std::optional<OnlyOne> only_{std::in_place};
  std::optional<recordings::FrontEnd> front_end_;
};

}  // namespace

void bind_front_end(nb::module_& m) {
  nb::class_<FrontEnd>(m, "FrontEnd")
      .def(nb::init<double>(), nb::arg("threshold"))
      .def("close", &FrontEnd::close)
      .def(
          "process", &FrontEnd::process, nb::arg("mics"), nb::arg("ref"), nb::arg("scrambled"),
          "(outputs [3, n], clean [n], [(sample, start, end, cost, angle, angle_length)], restarts "
          "[3]) of whole frames");
}

}  // namespace quibo::python
