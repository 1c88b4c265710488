// Plays a six-channel capture (as quibo_demo's input) through one front end and prints a digest of
// everything each module computed, and the wakes and angles. Two builds, platforms or instruction
// sets (QUIBO_KERNELS) agree to the bit where they print the same lines.
//
//   quibo_digest FILE [FRAMES [OUT]]   OUT: receives what the suppressors put out, int16
//   quibo_digest --variants            the instruction sets that run here
//   quibo_digest --fused               those whose multiply-adds round once, and do not agree

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <initializer_list>

#include "api/WakeupApi.h"
#include "doa/customs_doa_api.h"
#include "dsp/kernels.h"
#include "wakeup/ChineseConv.h"
#include "wakeup/QuibWakeupApi.h"

namespace {

constexpr int kChannels = 6;
constexpr int kWakeEvery = 16;  // frames

// FNV-1a, byte by byte.
struct Digest {
  const char* name;
  uint64_t value = 14695981039346656037u;

  void add(const void* data, size_t size) {
    const uint8_t* bytes = static_cast<const uint8_t*>(data);
    for (size_t i = 0; i < size; ++i) value = (value ^ bytes[i]) * 1099511628211u;
  }
  void print() const { printf("%-20s %016llx\n", name, static_cast<unsigned long long>(value)); }
};

Digest cancellers{"cancellers"}, echo_suppressor{"echo suppressor"},
    noise_suppressors{"noise suppressors"}, features{"features"}, posteriors{"posteriors"},
    directions{"directions"}, limiter{"limiter"};

EWordNet* wake_network(KTWakeup h) {
  return &static_cast<KTWakeupParam*>(h->handle4)->handle0->mynet;
}

// Any score wakes while `ready`, silence too: wakes and angles belong to what is compared, whatever the
// parameters make of this recording.
void make_ready(KTWakeup h, bool ready) {
  static const float trained = wake_network(h)->pdec->pWords[0].div;
  wake_network(h)->pdec->pWords[0].div = ready ? 1e9f : trained;
  wake_network(h)->pdec->delay_flag = ready;
}

void run_limiter(KTWakeup h) {
  float out[QUIBO_FRAME];
  int16_t samples[QUIBO_FRAME];
  zq_MPO_process(&h->KTmpo, h->aec_fdata1, out, samples, QUIBO_FRAME);
  limiter.add(out, sizeof out);
  limiter.add(samples, sizeof samples);
}

// Returns whether it woke.
bool play(KTWakeup h, const int16_t* capture, int frame, FILE* suppressed) {
  int16_t in[kChannels][QUIBO_FRAME], out[3][QUIBO_FRAME], naec[QUIBO_FRAME];
  for (int i = 0; i < QUIBO_FRAME; ++i) {
    for (int c = 0; c < kChannels; ++c) in[c][i] = capture[kChannels * i + c];
  }
  Quibo_wakeup_three_write_data(h, in[0], in[1], in[2], in[4], out[0], out[1], out[2], naec);
  for (const float* x : {h->aec_fdata1, h->aec_fdata2, h->aec_fdata3}) {
    cancellers.add(x, sizeof h->aec_fdata1);
  }
  cancellers.add(out, sizeof out);
  echo_suppressor.add(naec, sizeof naec);
  if (suppressed) fwrite(naec, sizeof naec, 1, suppressed);

  int32_t wake = -1;
  const int32_t angle =
      Quibo_doa_three_write_data(h, &wake, out[0], out[1], out[2], naec, QUIBO_FRAME);
  for (const int16_t* fifo : {h->mic1_doa_data, h->mic2_doa_data, h->mic3_doa_data}) {
    noise_suppressors.add(fifo, sizeof h->mic1_doa_data);
    if (suppressed) fwrite(fifo, sizeof h->mic1_doa_data, 1, suppressed);
  }
  const LAYER_DATA* heard = wake_network(h)->dlayer;
  features.add(heard->in_feat, KWS_FRAMES * KWS_BANDS * sizeof(float));
  posteriors.add(heard->afreq, KWS_CLASSES * sizeof(float));
  directions.add(static_cast<KTDParama*>(h->handle0)->doanet.dlayer->xy, 2 * sizeof(float));
  run_limiter(h);
  if (wake >= 0) printf("wake %d at frame %d, angle %d\n", wake, frame, angle);
  return wake >= 0;
}

int list(const quibo::Kernels* (*variants)(int)) {
  for (int i = 0; const quibo::Kernels* k = variants(i); ++i) puts(k->name);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && strcmp(argv[1], "--variants") == 0) return list(quibo::available_kernels);
  if (argc == 2 && strcmp(argv[1], "--fused") == 0) return list(quibo::fused_kernels);
  FILE* file = argc > 1 ? fopen(argv[1], "rb") : nullptr;
  KTWakeup front_end = nullptr;
  FILE* suppressed = argc > 3 ? fopen(argv[3], "wb") : nullptr;
  if (!file || (argc > 3 && !suppressed) || Quibo_wakeup_init(&front_end, 0) != 0) {
    fprintf(stderr, "usage: quibo_digest FILE [FRAMES [OUT]] | --variants | --fused\n");
    return 1;
  }
  const int limit = argc > 2 ? atoi(argv[2]) : INT32_MAX;
  static int16_t capture[kChannels * QUIBO_FRAME];
  int frames = 0, last_wake = 0;
  while (frames < limit && fread(capture, sizeof capture, 1, file) == 1) {
    make_ready(front_end, frames - last_wake >= kWakeEvery);
    if (play(front_end, capture, frames, suppressed)) last_wake = frames;
    ++frames;
  }
  fclose(file);
  if (suppressed) fclose(suppressed);
  for (const Digest* digest : {&cancellers, &echo_suppressor, &noise_suppressors, &features,
                               &posteriors, &directions, &limiter}) {
    digest->print();
  }
  printf("%d frames\n", frames);
  Quibo_wakeup_unit(front_end);
  return 0;
}
