// One step of the noise suppressor's network, or two at once.

#include "denoise/denoise_net.h"

#include "dsp/kernels.h"
#include "dsp/stft.h"
#include "nn/conv_layer.h"

namespace {

using quibo::ConvInput;
using quibo::ConvJob;
using quibo::copy;
using quibo::kBins;
using quibo::kHop;
using quibo::run_conv;
using quibo::Spectrum;

constexpr int kMaxSteps = 2;
constexpr int kHidden = 32;
constexpr int kMap = kHidden * quibo::kGruPositions;

//                     channels, inputs, times, stride, stored
using Encoder1 = ConvInput<2, 512, 3, 2, 2>;
using Encoder2 = ConvInput<16, 256, 3, 2, 2>;
using Encoder3 = ConvInput<32, 128, 3, 2, 2>;
using Encoder4 = ConvInput<32, 64, 3, 2, 2>;
using Decoder1 = ConvInput<32, 32, 3, 1, 2>;
using Decoder2 = ConvInput<16, 64, 3, 1, 2>;
using Decoder3 = ConvInput<16, 128, 3, 1, 2>;
using Decoder4 = ConvInput<8, 256, 3, 1, 2>;

// Scratch, rewritten at each call and shared by all instances.
constexpr int kLargestWindow = Encoder3::window_floats(kMaxSteps);
constexpr int kLargestSplit = Encoder3::split_floats(kMaxSteps);
static_assert(Encoder2::window_floats(kMaxSteps) <= kLargestWindow, "largest");
static_assert(Encoder2::split_floats(kMaxSteps) <= kLargestSplit, "largest");
static_assert(kLargestWindow % 16 == 0, "the split form starts on a cache line");
alignas(64) float sh_tempbuf[kLargestWindow + kLargestSplit];  // a layer's window, its split form
alignas(64) float sh_out1[kMaxSteps * 2 * kHop];
alignas(64) float sh_out2[kMaxSteps * 32 * 64];  // before a shuffle: at most 32 x 64 or 16 x 128

float* const window = sh_tempbuf;
float* const split = sh_tempbuf + kLargestWindow;
static_assert(quibo::gru_scratch(kHidden) <= kLargestWindow + kLargestSplit, "as their scratch");

// ---- First layer -----------------------------------------------------------------------------
// Its products run over 20 columns although a row has 18. Rows of patches and of weights lie 18
// apart, so the last two columns multiply the first two values of the next position's patch (first
// channel, oldest frame) with the first two weights of the next output channel. The parameters are
// trained with that. What the last position and the last channel meet there is two zeros and the
// two floats at the end of the table.
constexpr int kFirstTaps = Encoder1::kTaps + 2;
constexpr int kFirstSplitFrame = Encoder1::kSplitFrame + Encoder1::kOutputs;

struct FirstTaps {
  int32_t at[kFirstTaps];
  constexpr FirstTaps() : at() {
    int j = 0;
    for (int c = 0; c < Encoder1::kChannels; ++c) {
      for (int t = 0; t < 3; ++t) {
        for (int f = 0; f < 3; ++f, ++j) {
          at[j] = Encoder1::tap(c, t, f, kFirstSplitFrame);
        }
      }
    }
    at[j] = Encoder1::kSplitFrame;         // column 2(p+1), kept apart for its end
    at[j + 1] = Encoder1::kSplitHalf + 1;  // column 2(p+1) + 1, which ends with the row's own zero
  }
};

constexpr FirstTaps kFirstTapOffsets;

ConvJob first_layer_job(int steps) {
  Encoder1::split(split, window, steps, kFirstSplitFrame);
  for (int f = 0; f < Encoder1::kKept + steps; ++f) {
    float* frame = split + f * kFirstSplitFrame;
    float* next_patch = frame + Encoder1::kSplitFrame;
    copy(next_patch, frame + 1, Encoder1::kOutputs - 1);
    next_patch[Encoder1::kOutputs - 1] = 0.0f;
  }
  ConvJob job = Encoder1::job(split, steps);
  job.tap_offset = kFirstTapOffsets.at;
  job.taps = kFirstTaps;
  job.input_step = kFirstSplitFrame;
  return job;
}

// ---- Layers ----------------------------------------------------------------------------------

template <class Input>
ConvJob layer_job(int steps) {
  Input::split(split, window, steps);
  return Input::job(split, steps);
}

// An encoder layer whose output is the next layer's fresh frames.
template <class Next>
void encode(const ConvJob& job, const LAYER_CONV_COMMON& layer) {
  Next::clear_guards(window, job.steps);
  run_conv(job, layer, Next::kChannels, Next::fresh(window) + 1, Next::kRow, Next::kFrame);
}

// Counts `steps` more steps at a layer; false while its history lacks an older frame.
bool warmed_up(int32_t* count, int steps) {
  if (*count < INT32_MAX - kMaxSteps) *count += steps;
  return *count > 1;
}

quibo::GruJob gru_job(const LAYER_GRU_COMMON& layer, const float* input, float* output, int steps) {
  quibo::GruJob job =
      quibo::gru_job(layer, kHidden * kHidden, kHidden, input, output, steps, sh_tempbuf);
  job.norm_weight = layer.norm_weight;
  job.norm_bias = layer.norm_bias;
  return job;
}

void denoise_time_gru_forward_new(const LAYER_GRU_COMMON& layer, int steps) {
  quibo::kernels().net.denoise_gru.time(gru_job(layer, sh_out1, sh_out2, steps));
}

void denoise_freq_gru_forward_new(const LAYER_GRU_COMMON& layer, int steps) {
  quibo::kernels().net.denoise_gru.frequency(gru_job(layer, sh_out2, sh_out1, steps));
}

// ---- Spectra ---------------------------------------------------------------------------------

// Transforms a hop, appends it to the history and writes the network's input frame: two rows of
// bins 0..511, real and imaginary; despite the name neither magnitude nor phase.
void denoise_calc_input_mag_phase(LAYER_DATA_DENOISE* d, const float* hop, float* frame) {
  Spectrum spectrum;
  quibo::analyse_hop(d->inMic, hop, &spectrum);
  quibo::push_spectrum(d->spec_real, d->spec_imag, spectrum);
  copy(frame + 1, spectrum.real, kHop);
  copy(frame + Encoder1::kRow + 1, spectrum.imag, kHop);
}

// Masks the delayed spectrum in place. `mask`: 2 x 512 network outputs; bin 512 gets an input of 0.
void denoise_calc_mask_scale(Spectrum* spectrum, const float* mask, float min_scale) {
  constexpr int kLowBins = 8;  // below 125 Hz the device only has hum and handling noise
  constexpr float kLowGain = 0.15f;
  auto scale = [&](float* bins, const float* row) {
    float gain[kBins];
    copy(gain, row, kHop);
    gain[kHop] = 0.0f;
    quibo::kernels().net.act_h(gain, gain, kBins, quibo::Activation::kSigmoid);
    for (int k = 0; k < kBins; ++k) {
      bins[k] *= min_scale > gain[k] ? min_scale : gain[k];
    }
    for (int k = 0; k < kLowBins; ++k) bins[k] *= kLowGain;
  };
  scale(spectrum->real, mask);
  scale(spectrum->imag, mask + kHop);
}

void denoise_isft_to_out(LAYER_DATA_DENOISE* d, const Spectrum& spectrum, float* out) {
  float frame[quibo::kStftFrame];
  quibo::synthesise_frame(spectrum, frame);
  for (int i = 0; i < kHop; ++i) out[i] = quibo::limit_output(d->ovlp_add[kHop + i] + frame[i]);
  copy(d->ovlp_add, frame, quibo::kStftFrame);
}

int32_t forward(DenoiseNet* net, const float* in, float* out, int steps) {
  LAYER_DATA_DENOISE* d = net->dlayer;
  Spectrum delayed[kMaxSteps];
  Encoder1::clear_guards(window, steps);
  for (int s = 0; s < steps; ++s) {
    denoise_calc_input_mag_phase(d, in + s * kHop, Encoder1::fresh(window) + s * Encoder1::kFrame);
    copy(delayed[s].real, d->spec_real, kBins);
    copy(delayed[s].imag, d->spec_imag, kBins);
  }

  Encoder1::exchange_history(d->x_inp1_input, window, steps);
  if (!warmed_up(&d->x_inp1_frame, steps)) return -1;
  encode<Encoder2>(first_layer_job(steps), *net->inp_conv1);
  Encoder2::exchange_history(d->x_inp2_input, window, steps);
  if (!warmed_up(&d->x_inp2_frame, steps)) return -1;
  encode<Encoder3>(layer_job<Encoder2>(steps), *net->inp_conv2);
  Encoder3::exchange_history(d->x_inp3_input, window, steps);
  if (!warmed_up(&d->x_inp3_frame, steps)) return -1;
  encode<Encoder4>(layer_job<Encoder3>(steps), *net->inp_conv3);
  Encoder4::exchange_history(d->x_inp4_input, window, steps);
  if (!warmed_up(&d->x_inp4_frame, steps)) return -1;
  run_conv(layer_job<Encoder4>(steps), *net->inp_conv4, kHidden, sh_out1, quibo::kGruPositions,
           kMap);

  denoise_time_gru_forward_new(*net->t_gru1, steps);
  denoise_freq_gru_forward_new(*net->f_gru1, steps);
  denoise_time_gru_forward_new(*net->t_gru2, steps);
  denoise_freq_gru_forward_new(*net->f_gru2, steps);
  denoise_time_gru_forward_new(*net->t_gru3, steps);
  denoise_freq_gru_forward_new(*net->f_gru3, steps);

  Decoder1::pad(window, sh_out1, steps);
  quibo::upsample_into<Decoder1, 32, Decoder2>(window, d->sub1_input, *net->sub_pix_conv1, steps,
                                               sh_out2);
  quibo::upsample_into<Decoder2, 32, Decoder3>(window, d->sub2_input, *net->sub_pix_conv2, steps,
                                               sh_out2);
  quibo::upsample_into<Decoder3, 16, Decoder4>(window, d->sub3_input, *net->sub_pix_conv3, steps,
                                               sh_out2);
  quibo::upsample<Decoder4, 4>(window, d->sub4_input, *net->sub_pix_conv4, steps, sh_out2, sh_out1,
                               kHop, 2 * kHop);

  for (int s = 0; s < steps; ++s) {
    denoise_calc_mask_scale(&delayed[s], sh_out1 + s * 2 * kHop, d->min_scale);
    denoise_isft_to_out(d, delayed[s], out + s * kHop);
  }
  return 0;
}

}  // namespace

int32_t nn_denoise_forward(DenoiseNet* net, const float* in, float* out) {
  // The working record is allocated last: without it, or anything before it, there is no network.
  if (!net->dlayer) return -1;
  return forward(net, in, out, 1);
}

int32_t nn_denoise_forward_frame(DenoiseNet* net, const float* in, float* out) {
  const LAYER_DATA_DENOISE* d = net->dlayer;
  const bool warm =
      d && d->x_inp1_frame > 0 && d->x_inp2_frame > 0 && d->x_inp3_frame > 0 && d->x_inp4_frame > 0;
  if (warm) return forward(net, in, out, 2);
  nn_denoise_forward(net, in, out);
  return nn_denoise_forward(net, in + kHop, out + kHop);
}
