#include "api/WakeupApi.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "aec/aec_denoise_net.h"
#include "dsp/convert.h"
#include "dsp/memory.h"

namespace {

constexpr char kVersionLine[] = "Version:libquibo_wakeup_DOA_v3.3.22_20251103\n";

constexpr int kLimiterGaindB = 20, kLimiterLeveldB = -3;

// Sum of three microphones to their mean. The single-precision constant is part of what the wake-up
// network hears.
constexpr float kThird = 0.3333333f;

// Floors of the noise suppressors' masks.
constexpr float kWakeMinGain = 0.1f, kDirectionMinGain = 0.3f;

constexpr int kAngleOffset = 30;  // degrees between the network's zero heading and the device's

void store_samples(int16_t* to, const float* from) {
  if (!to) return;
  for (int i = 0; i < QUIBO_FRAME; ++i) to[i] = quibo::float_to_int16(from[i]);
}

void mix(int16_t* to, const int16_t* mic1, const int16_t* mic2, const int16_t* mic3) {
  for (int i = 0; i < QUIBO_FRAME; ++i) {
    const float sum = static_cast<float>(mic1[i] + mic2[i] + mic3[i]);
    to[i] = static_cast<int16_t>(static_cast<int32_t>(sum * kThird));
  }
}

// The fill level after `len` more samples, kept within the FIFOs whatever the caller says.
int32_t advanced(int32_t pending, int32_t len) {
  if (len > QUIBO_FIFO - pending) return QUIBO_FIFO;
  return len < -pending ? 0 : pending + len;
}

void clear_fifos(KTWakeup h) {
  memset(h->mic1_doa_data, 0, sizeof h->mic1_doa_data);
  memset(h->mic2_doa_data, 0, sizeof h->mic2_doa_data);
  memset(h->mic3_doa_data, 0, sizeof h->mic3_doa_data);
  memset(h->WData, 0, sizeof h->WData);
  h->data_doa_len = 0;
}

// Drops the oldest block of every FIFO.
void advance_fifos(KTWakeup h) {
  h->data_doa_len -= QUIBO_BLOCK;
  const size_t rest = static_cast<size_t>(h->data_doa_len) * sizeof(int16_t);
  memmove(h->mic1_doa_data, h->mic1_doa_data + QUIBO_BLOCK, rest);
  memmove(h->mic2_doa_data, h->mic2_doa_data + QUIBO_BLOCK, rest);
  memmove(h->mic3_doa_data, h->mic3_doa_data + QUIBO_BLOCK, rest);
  memmove(h->WData, h->WData + QUIBO_BLOCK, rest);
}

}  // namespace

int32_t Quibo_wakeup_init(KTWakeup* handle, int32_t lang) {
  if (*handle) return -1;
  KTWakeup h = quibo::allocate<KTWakeupParams>();
  if (!h) return -2;
  if (!(h->handle1 = kesto_Laec_Post_init())) return -3;
  if (!(h->handle2 = kesto_Laec_Post_init())) return -4;
  if (!(h->handle3 = kesto_Laec_Post_init())) return -5;
  h->data_doa_len = 0;
  if (kesto_customs_doa_init(&h->handle0) < 0) return -4;
  if (QuibWakeupInit(&h->handle4, lang) < 0) return -5;
  if (QuibAncInit(&h->WAncHnadle, kWakeMinGain) < 0) return -6;
  if (QuibAncInit(&h->DAncHnadle0, kDirectionMinGain) < 0) return -7;
  if (QuibAncInit(&h->DAncHnadle1, kDirectionMinGain) < 0) return -8;
  if (QuibAncInit(&h->DAncHnadle2, kDirectionMinGain) < 0) return -9;
  if (QuibNAecInit(&h->DNAecHanle) < 0) return -10;
  h->WDlen = 0;
  zq_MPO_Init(&h->KTmpo, QUIBO_SAMPLE_RATE, kLimiterGaindB, kLimiterLeveldB);
  *handle = h;
  printf(kVersionLine);
  return 0;
}

int32_t Quibo_wakeup_three_write_data(KTWakeup handle, int16_t* mic1_data, int16_t* mic2_data,
                                      int16_t* mic3_data, const int16_t* ref_data,
                                      int16_t* outdata1, int16_t* outdata2, int16_t* outdata3,
                                      int16_t* naecout) {
  if (!handle) {
    printf("kesto_wakeup_three_write_data error\n");
    return -1;
  }
  dec_data(mic1_data, QUIBO_FRAME);
  dec_data(mic2_data, QUIBO_FRAME);
  dec_data(mic3_data, QUIBO_FRAME);

  kesto_Laec_Post_write(handle->handle1, mic1_data, ref_data, handle->aec_fdata1);
  kesto_Laec_Post_write(handle->handle2, mic2_data, ref_data, handle->aec_fdata2);
  kesto_Laec_Post_write(handle->handle3, mic3_data, ref_data, handle->aec_fdata3);

  QuibNAecRun(handle->DNAecHanle, kesto_laec_micdata(handle->handle1),
              kesto_laec_yn(handle->handle1), naecout);

  store_samples(outdata1, handle->aec_fdata1);
  store_samples(outdata2, handle->aec_fdata2);
  store_samples(outdata3, handle->aec_fdata3);
  return 0;
}

int32_t Quibo_doa_three_write_data(KTWakeup handle, int32_t* Iswakeup, const int16_t* mic1_data,
                                   const int16_t* mic2_data, const int16_t* mic3_data,
                                   const int16_t* naec_data, int32_t len) {
  (void)naec_data;
  if (!handle) {
    printf("kesto_doa_three_write_data error\n");
    return -10;
  }
  const int32_t pending = handle->data_doa_len;
  mix(handle->WData + pending, mic1_data, mic2_data, mic3_data);
  QuibAncRun(handle->DAncHnadle0, mic1_data, handle->mic1_doa_data + pending);
  QuibAncRun(handle->DAncHnadle1, mic2_data, handle->mic2_doa_data + pending);
  QuibAncRun(handle->DAncHnadle2, mic3_data, handle->mic3_doa_data + pending);
  handle->data_doa_len = advanced(pending, len);

  *Iswakeup = -1;
  int32_t woken = 0;  // from the block of a wake to the end of the call
  while (handle->data_doa_len >= QUIBO_BLOCK) {
    const int32_t wake = QuibWakeupWriteData(handle->handle4, handle->WData);
    if (wake > 0) {  // not with this engine; for one that tells keywords apart
      clear_fifos(handle);
      *Iswakeup = wake;
      return -1;
    }
    if (wake == 0) {
      *Iswakeup = 0;
      woken = 1;
    }
    const int32_t angle =
        kesto_customs_doa_write(handle->handle0, handle->mic1_doa_data, handle->mic2_doa_data,
                                handle->mic3_doa_data, nullptr, woken);
    advance_fifos(handle);
    if (angle >= 0) {
      clear_fifos(handle);
      return (angle + kAngleOffset) % 360;
    }
  }
  return -1;
}

int32_t Quibo_aec_restarts(KTWakeup handle, int32_t mic) {
  if (!handle || mic < 1 || mic > 3) return -1;
  void* const cancellers[] = {handle->handle1, handle->handle2, handle->handle3};
  return kesto_laec_restarts(cancellers[mic - 1]);
}

int32_t Quibo_wakeup_unit(KTWakeup handle) {
  if (!handle) return -1;
  void* const cancellers[] = {handle->handle1, handle->handle2, handle->handle3};
  void* const suppressor = handle->DNAecHanle;
  void* const engine = handle->handle4;
  // Who reads goes before what it reads from: the modules before the record that holds their FIFOs,
  // and that before the cancellers, whose frames the echo suppressor takes where they stand. The
  // suppressor's record and handle, which its unit call leaves, go last.
  kesto_customs_doa_unit(handle->handle0);
  QuibAncUnit(&handle->WAncHnadle);
  QuibAncUnit(&handle->DAncHnadle0);
  QuibAncUnit(&handle->DAncHnadle1);
  QuibAncUnit(&handle->DAncHnadle2);
  QuibNAecUnit(suppressor);
  free(handle);
  for (void* canceller : cancellers) kesto_Laec_Post_unit(canceller);
  QuibWakeupUnit(engine);
  free_aec_denoise(suppressor);
  return 0;
}
