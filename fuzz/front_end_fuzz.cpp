// Sequences of the four calls of the front end, in any order, on a handle or on NULL.

#include "fuzz/input.h"
#include "quibo/quibo.h"

using quibo_fuzz::Input;
using quibo_fuzz::require;
using Samples = std::vector<int16_t>;

namespace {

constexpr int kMaxFrames = 3, kMaxFrontEnds = 2;  // of one input: what takes time

void echo_path(Input& in, KTWakeup h) {
  Samples mics[3], outs[3] = {Samples(QUIBO_FRAME), Samples(QUIBO_FRAME), Samples(QUIBO_FRAME)};
  for (Samples& mic : mics) mic = in.samples(QUIBO_FRAME);
  const Samples ref = in.samples(QUIBO_FRAME);
  const int skipped = in.choose(8);
  Samples naec(QUIBO_FRAME);
  const int32_t result = Quibo_wakeup_three_write_data(
      h, mics[0].data(), mics[1].data(), mics[2].data(), ref.data(),
      skipped & 1 ? nullptr : outs[0].data(), skipped & 2 ? nullptr : outs[1].data(),
      skipped & 4 ? nullptr : outs[2].data(), naec.data());
  require(result == (h ? 0 : -1));
}

void detection_path(Input& in, KTWakeup h) {
  Samples mics[3];
  for (Samples& mic : mics) mic = in.samples(QUIBO_FRAME);
  const int32_t len = in.choose(4) ? static_cast<int32_t>(QUIBO_FRAME) : in.any<int32_t>();
  int32_t wake = 7;
  const int32_t angle = Quibo_doa_three_write_data(h, &wake, mics[0].data(), mics[1].data(),
                                                   mics[2].data(), nullptr, len);
  require(h ? wake == -1 || wake == 0 : wake == 7);
  require(h ? angle >= -1 && angle < 360 : angle == -10);
  require(angle < 0 || wake == 0);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  KTWakeup h = nullptr;
  int frames = 0, front_ends = 0;
  while (!in.empty()) {
    switch (in.choose(8)) {
      case 0: {
        const KTWakeup before = h;
        if (!before && ++front_ends > kMaxFrontEnds) break;
        require(Quibo_wakeup_init(&h, in.any<int32_t>()) == (before ? -1 : 0));
        require(h && (!before || h == before));
        break;
      }
      case 1:
        require(Quibo_wakeup_unit(h) == (h ? 0 : -1));
        h = nullptr;
        break;
      case 2:
      case 3:
      case 4:
        if (++frames <= kMaxFrames) echo_path(in, h);
        break;
      default:
        if (++frames <= kMaxFrames) detection_path(in, h);
    }
  }
  Quibo_wakeup_unit(h);
  return 0;
}
