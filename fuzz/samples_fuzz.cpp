// The sample codec and the output limiter, with any samples, levels and lengths.

#include <algorithm>

#include "fuzz/input.h"
#include "limiter/zq_MPO.h"

using quibo_fuzz::Input;
using quibo_fuzz::require;

namespace {

void codec(Input& in) {
  const int count = 1 + in.byte();
  const std::vector<int16_t> plain = in.samples(count);
  std::vector<int16_t> x = plain;
  const int32_t len = in.choose(4) ? count : std::min(in.any<int32_t>(), count);
  enc_data(x.data(), len);
  require(len > 0 || x == plain);
  dec_data(x.data(), len);
  require(x == plain);
}

void limiter(Input& in) {
  stMPO mpo;
  const bool usual = in.choose(4);
  const int32_t rate = usual ? 16000 : in.any<int32_t>();
  const int32_t gain = usual ? in.choose(61) : in.any<int32_t>();
  require(zq_MPO_Init(&mpo, rate, gain, usual ? -in.choose(31) : in.any<int32_t>()) == 0);
  while (!in.empty()) {
    const int count = 1 + in.byte();
    const std::vector<float> x = in.floats(count);
    std::vector<float> out(x.size());
    std::vector<int16_t> samples(x.size());
    const int32_t len = in.choose(4) ? count : std::min(in.any<int32_t>(), count);
    const int skipped = in.choose(4);
    require(zq_MPO_process(&mpo, x.data(), skipped & 1 ? nullptr : out.data(),
                           skipped & 2 ? nullptr : samples.data(), len) == 0);
  }
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  in.choose(2) ? codec(in) : limiter(in);
  return 0;
}
