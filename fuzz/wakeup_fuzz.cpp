// The wake-up engine's calls, on a record of the caller's and behind a handle.

#include "fuzz/input.h"
#include "wakeup/ChineseConv.h"

using quibo_fuzz::Input;
using quibo_fuzz::require;

namespace {

constexpr int kMaxBlocks = 12;

void own_record(Input& in) {
  KTCWakeupParam* p = static_cast<KTCWakeupParam*>(malloc(sizeof(KTCWakeupParam)));
  require(p != nullptr);
  memset(static_cast<void*>(p), in.byte(), sizeof *p);  // whatever it held before
  require(KestoChineseWakeupInit(p) == 0);
  for (int block = 0; block < kMaxBlocks && !in.empty(); ++block) {
    if (in.choose(8) == 0) KestoChineseWakeupclear(in.choose(2) ? p : nullptr);
    const std::vector<int16_t> samples = in.samples(KWS_BLOCK);
    const int32_t result = KestoChineseWakeupWrite(p, samples.data());
    require(result == 0 || result == -1);
    if (result == 0) continue;  // a wake clears the posteriors
    const float* posteriors = p->mynet.dlayer->afreq;
    float sum = -posteriors[0];  // the filler is also part of the blank
    for (int c = 0; c < KWS_CLASSES; ++c) {
      require(posteriors[c] >= 0.0f && posteriors[c] < 1.0001f);
      sum += posteriors[c];
    }
    require(sum > 0.999f && sum < 1.001f);
  }
  require(KestoChineseWakeupUnit(p) == 0);
}

void behind_a_handle(Input& in) {
  void* h = nullptr;
  require(QuibWakeupInit(&h, in.any<int32_t>()) == 0 && h);
  for (int block = 0; block < kMaxBlocks && !in.empty(); ++block) {
    const std::vector<int16_t> samples = in.samples(KWS_BLOCK);
    void* used = in.choose(8) ? h : nullptr;
    const int32_t result = QuibWakeupWriteData(used, samples.data());
    require(used ? result == 0 || result == -1 : result == -10);
  }
  require(QuibWakeupUnit(nullptr) == -10);
  require(QuibWakeupUnit(h) == 0);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  in.choose(2) ? own_record(in) : behind_a_handle(in);
  return 0;
}
