// The linear echo canceller's calls, on a record of the caller's with any floats and any tuning,
// and behind a handle.

#include "aec/Laec.h"
#include "fuzz/input.h"

using quibo_fuzz::Input;
using quibo_fuzz::require;

namespace {

constexpr int kMaxFrames = 16;

void tune(Input& in, LAEC* st) {
  float* const fields[] = {&st->pconst, &st->pfMin, &st->pfMax, &st->muMax,
                           &st->muMin,  &st->delta, &st->gamma};
  *fields[in.choose(7)] = in.any<float>();
}

void own_record(Input& in) {
  const std::vector<uint8_t> filler(sizeof(LAEC), in.byte());
  std::vector<LAEC> record(1);
  memcpy(record.data(), filler.data(), sizeof(LAEC));  // init_laec() sets every field
  LAEC* st = record.data();
  require(init_laec(st) == 0);
  for (int frame = 0; frame < kMaxFrames && !in.empty(); ++frame) {
    const int what = in.choose(8);
    if (what == 0) require(init_laec(st) == 0);
    if (what == 1) tune(in, st);
    const std::vector<float> mic = in.floats(LAEC_SHIFT), ref = in.floats(LAEC_SHIFT);
    std::vector<float> out(LAEC_SHIFT);
    require(linear_aec_proc(st, mic.data(), ref.data(), out.data()) == 1);
    if (what >= 4) linear_aec_post(st, out.data());
  }
}

void behind_a_handle(Input& in) {
  void* h = kesto_Laec_Post_init();
  for (int frame = 0; frame < kMaxFrames && !in.empty(); ++frame) {
    const int missing = in.choose(8);
    const std::vector<int16_t> mic = in.samples(LAEC_SHIFT), ref = in.samples(LAEC_SHIFT);
    std::vector<float> out(LAEC_SHIFT);
    const int32_t result =
        kesto_Laec_Post_write(missing == 1 ? nullptr : h, missing == 2 ? nullptr : mic.data(),
                              missing == 3 ? nullptr : ref.data(), out.data());
    require(result == (missing >= 1 && missing <= 3 ? -1 : LAEC_SHIFT));
    for (int i = 0; i < LAEC_SHIFT; ++i) {
      require(kesto_laec_micdata(h)[i] <= 1.0f);
      require(kesto_laec_yn(h)[i] == kesto_laec_yn(h)[i]);
    }
  }
  require(kesto_Laec_Post_unit(nullptr) == -1);
  require(kesto_Laec_Post_unit(h) == 0);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  in.choose(2) ? own_record(in) : behind_a_handle(in);
  return 0;
}
