#include "resampler.h"

#include <soxr.h>

#include <new>

namespace quibo::recordings {

namespace {

// Share of the lower rate's band that passes unchanged: the wake-up network hears up to 8 kHz, and
// the library's usual 0.913 made it miss a phrase of the sample recording.
constexpr double kPassband = 0.985;

}  // namespace

Resampler::Resampler(int from, int to) : ratio_(static_cast<double>(to) / from) {
  soxr_quality_spec_t quality = soxr_quality_spec(SOXR_HQ, 0);
  quality.passband_end = kPassband;
  for (void*& state : state_) {
    state = soxr_create(from, to, 1, nullptr, nullptr, &quality, nullptr);
    if (!state) throw std::bad_alloc();
  }
}

Resampler::~Resampler() {
  for (void* state : state_) soxr_delete(static_cast<soxr_t>(state));
}

void Resampler::process(int track, const float* in, int count, std::vector<float>* out) {
  constexpr size_t kSpare = 64;
  const soxr_t state = static_cast<soxr_t>(state_[track]);
  size_t used = 0, made = 0;
  do {
    const size_t start = out->size();
    const size_t left = static_cast<size_t>(count) - used;
    out->resize(start + static_cast<size_t>(static_cast<double>(left) * ratio_) + kSpare);
    size_t taken = 0;
    soxr_process(state, count > 0 ? in + used : nullptr, left, &taken, out->data() + start,
                 out->size() - start, &made);
    used += taken;
    out->resize(start + made);
  } while (used < static_cast<size_t>(count) || (count == 0 && made > 0));
}

}  // namespace quibo::recordings
