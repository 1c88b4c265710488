#include "wakeup/features.h"

#include <string.h>

#include "dsp/log_mel.h"
#include "wakeup/quantised.h"

namespace quibo::wakeup {

static_assert(KWS_BANDS == kMelBands, "the features are log-mel bands");

void push_samples(LAYER_DATA* data, const int16_t* samples) {
  constexpr int kKept = KWS_HISTORY - KWS_BLOCK;
  memcpy(data->in, data->in + KWS_BLOCK, kKept * sizeof(float));
  for (int i = 0; i < KWS_BLOCK; ++i) data->in[kKept + i] = samples[i];
}

void cal_block_feature_int8(LAYER_DATA* data) {
  for (int f = 0; f < KWS_FRAMES; ++f) {
    memcpy(data->afreq, data->in + f * kMelHop, kMelFrame * sizeof(float));
    log_mel(data->afreq, data->micfft, data->in_feat + f * KWS_BANDS);
  }
}

void convert_input_data(LAYER_DATA* data, const LAYER_CONV_1D_INT8* first) {
  uint8_t* frames = data->out2;
  memcpy(frames, data->qleft.conv1_left, KWS_BANDS);
  for (int i = 0; i < KWS_FRAMES * KWS_BANDS; ++i) {
    frames[KWS_BANDS + i] = clamp_round(data->in_feat[i] / first->scale + first->in_zero_point);
  }
  memcpy(data->qleft.conv1_left, frames + KWS_FRAMES * KWS_BANDS, KWS_BANDS);
}

void clear_history(LAYER_DATA* data) {
  memset(data->in, 0, sizeof data->in);
  memset(&data->qleft, 0, sizeof data->qleft);
}

}  // namespace quibo::wakeup
