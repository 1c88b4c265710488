// Both neural suppressors: several noise suppressors in turns, any mask floor, output over input;
// the echo suppressor with any floats.

#include "aec/aec_denoise_net.h"
#include "fuzz/input.h"

using quibo_fuzz::Input;
using quibo_fuzz::require;

namespace {

constexpr int kMaxFrames = 6, kMaxSample = 32440;  // 0.99 of full scale

void require_headroom(const std::vector<int16_t>& out) {
  for (const int16_t v : out) require(v >= -kMaxSample && v <= kMaxSample);
}

void noise_suppressors(Input& in) {
  void* handles[2] = {};
  int frames_of[2] = {};
  for (int frame = 0; frame < kMaxFrames && !in.empty(); ++frame) {
    const int which = in.choose(2);
    void*& h = handles[which];
    const int what = in.choose(8);
    if (h && what == 0) {
      require(QuibAncUnit(&h) == 0);
      h = nullptr;
    }
    if (!h && what != 1) {
      require(QuibAncInit(&h, in.any<float>()) == 0 && h);
      frames_of[which] = 0;
    }
    std::vector<int16_t> samples = in.samples(QUIBO_FRAME), out(QUIBO_FRAME);
    const bool in_place = what >= 6;
    const int32_t result = QuibAncRun(h, samples.data(), in_place ? samples.data() : out.data());
    require(result == (!h ? -10 : frames_of[which] < 2 ? -1 : 0));
    if (h) require_headroom(in_place ? samples : out);
    if (h) ++frames_of[which];
  }
  for (void*& h : handles) require(QuibAncUnit(&h) == (h ? 0 : -10));
}

void echo_suppressor(Input& in) {
  void* h = nullptr;
  require(QuibNAecInit(&h) == 0);
  for (int frame = 0; frame < kMaxFrames && !in.empty(); ++frame) {
    const std::vector<float> mic = in.floats(QUIBO_FRAME), yn = in.floats(QUIBO_FRAME);
    std::vector<int16_t> out(QUIBO_FRAME);
    void* used = in.choose(8) ? h : nullptr;
    require(QuibNAecRun(used, mic.data(), yn.data(), out.data()) == (used ? 0 : -1));
    require_headroom(out);
  }
  require(QuibNAecUnit(nullptr) == -1);
  require(QuibNAecUnit(h) == 0);
  free_aec_denoise(h);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  in.choose(2) ? noise_suppressors(in) : echo_suppressor(in);
  return 0;
}
