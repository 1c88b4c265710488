// The direction estimator's calls, on a record of the caller's and behind a handle.

#include "doa/ring_doa.h"
#include "fuzz/input.h"

using quibo_fuzz::Input;
using quibo_fuzz::require;
using Samples = std::vector<int16_t>;

namespace {

constexpr int kMaxBlocks = 10;

void own_record(Input& in) {
  std::vector<DoaNet> record(1);
  memset(static_cast<void*>(record.data()), in.byte(), sizeof(DoaNet));
  DoaNet* net = record.data();
  require(init_doa_net(net) == 0);
  for (int block = 0; block < kMaxBlocks && !in.empty(); ++block) {
    const int what = in.choose(8);
    if (what == 0) {
      const int32_t angle = doa_decision(net);
      require(angle >= -89 && angle <= 360);
    }
    const Samples mics[3] = {in.samples(QUIBO_BLOCK), in.samples(QUIBO_BLOCK),
                             in.samples(QUIBO_BLOCK)};
    const int32_t woken = what >= 6 ? in.any<int32_t>() : 0;
    const int32_t angle =
        proc_one_frame(net, mics[0].data(), mics[1].data(), mics[2].data(), woken);
    require(woken ? angle >= -89 && angle <= 360 : angle == -1);
  }
  destroy_doa_net(net);
}

void behind_a_handle(Input& in) {
  KTDHandle h = nullptr;
  require(kesto_customs_doa_init(&h) == 0 && h);
  for (int block = 0; block < kMaxBlocks && !in.empty(); ++block) {
    const Samples mics[3] = {in.samples(QUIBO_BLOCK), in.samples(QUIBO_BLOCK),
                             in.samples(QUIBO_BLOCK)};
    KTDHandle used = in.choose(8) ? h : nullptr;
    const int32_t angle = kesto_customs_doa_write(used, mics[0].data(), mics[1].data(),
                                                  mics[2].data(), nullptr, in.choose(2));
    require(used ? angle >= -1 && angle <= 360 : angle == -10);
  }
  kesto_customs_doa_unit(nullptr);
  kesto_customs_doa_unit(h);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  in.choose(2) ? own_record(in) : behind_a_handle(in);
  return 0;
}
