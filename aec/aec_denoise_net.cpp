// One step of the neural echo suppressor's network, or two at once.

#include "aec/aec_denoise_net.h"

#include "dsp/convert.h"
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
constexpr int kHidden = 64;
constexpr int kPositions = quibo::kGruPositions;
constexpr int kMap = kHidden * kPositions;

//                    channels, inputs, times, stride, stored
using Input1 = ConvInput<4, 512, 2, 2, 2>;
using Input2 = ConvInput<16, 256, 2, 2, 2>;
using Input3 = ConvInput<32, 128, 2, 2, 2>;
using Input4 = ConvInput<48, 64, 2, 2, 2>;
using Inner = ConvInput<kHidden, kPositions, 3, 1, 3>;  // encoder and decoder
using Pixel1 = ConvInput<64, 32, 2, 1, 2>;
using Pixel2 = ConvInput<32, 64, 2, 1, 2>;
using Pixel3 = ConvInput<16, 128, 2, 1, 2>;
using Pixel4 = ConvInput<8, 256, 2, 1, 2>;

// Scratch, rewritten at each call.
constexpr int kLargestWindow = Input3::window_floats(kMaxSteps);
static_assert(Input2::window_floats(kMaxSteps) <= kLargestWindow, "largest");
static_assert(Inner::window_floats(kMaxSteps) <= kLargestWindow, "largest");
constexpr int kLargestSplit = Input3::split_floats(kMaxSteps);
static_assert(Input2::split_floats(kMaxSteps) <= kLargestSplit, "largest");
static_assert(Input4::split_floats(kMaxSteps) <= kLargestSplit, "largest");
static_assert(kLargestWindow % 16 == 0, "the split form starts on a cache line");
constexpr int kScratch = quibo::gru_scratch(kHidden);
static_assert(kLargestWindow + kLargestSplit <= kScratch, "a layer's window and its split form");
alignas(64) float sfilter[kScratch];
alignas(64) float sh_out1[kMaxSteps * kMap];
alignas(64) float sh_out2[kMaxSteps * kMap];  // before a shuffle: 64 x 32, 32 x 64 or 16 x 128

float* const window = sfilter;
float* const split = sfilter + kLargestWindow;

// ---- Layers ----------------------------------------------------------------------------------

template <class Input>
ConvJob input_job(float* history, int steps) {
  Input::exchange_history(history, window, steps);
  Input::split(split, window, steps);
  return Input::job(split, steps);
}

// A layer of the input stage whose output is the next one's fresh frames.
template <class Input, class Next>
void nnaec_inp_conv(float* history, const LAYER_CONV_NNAEC& layer, int steps) {
  const ConvJob job = input_job<Input>(history, steps);
  Next::clear_guards(window, steps);
  run_conv(job, layer, Next::kChannels, Next::fresh(window) + 1, Next::kRow, Next::kFrame);
}

// An encoder or decoder stage on the maps in sh_out1, in place; residual (null: none) is added to
// its output.
void nnaec_enc_dec_conv(float* history, const LAYER_CONV_NNAEC& layer, const float* residual,
                        int residual_row, int residual_step, int steps) {
  Inner::pad(window, sh_out1, steps);
  Inner::exchange_history(history, window, steps);
  ConvJob job = Inner::job(window, steps);
  job.residual = residual;
  job.residual_stride = residual_row;
  job.residual_step = residual_step;
  run_conv(job, layer, kHidden, sh_out1, kPositions, kMap);
}

// `stage_inputs`: previous and current input map. `kept_output` (null: none): the last output map.
void encoder_stage(float* history, const LAYER_CONV_NNAEC& layer, float* stage_inputs,
                   float* kept_output, int steps) {
  if (steps == 1) copy(stage_inputs, stage_inputs + kMap, kMap);
  copy(stage_inputs + (2 - steps) * kMap, sh_out1, steps * kMap);
  nnaec_enc_dec_conv(history, layer, nullptr, 0, 0, steps);
  if (kept_output) copy(kept_output, sh_out1 + (steps - 1) * kMap, kMap);
}

// A decoder stage with the output of an encoder stage added, as the stage after that one keeps it:
// its newest frames, between guards.
void decoder_stage(float* history, const LAYER_CONV_NNAEC& layer, const float* encoder_history,
                   int steps) {
  const float* skip = encoder_history + (3 - steps) * Inner::kFrame + 1;
  nnaec_enc_dec_conv(history, layer, skip, Inner::kRow, Inner::kFrame, steps);
}

quibo::GruJob gru_job(const LAYER_GRU_NNAEC& layer, int steps) {
  return quibo::gru_job(layer, kHidden, 2 * kHidden, sh_out1, sh_out1, steps, sfilter);
}

void nnaec_time_gru_forward(const LAYER_GRU_NNAEC& layer, int steps) {
  quibo::kernels().net.aec_gru.time(gru_job(layer, steps));
}

void nnaec_freq_gru_forward(const LAYER_GRU_NNAEC& layer, int steps) {
  quibo::kernels().net.aec_gru.frequency(gru_job(layer, steps));
}

// ---- Spectra ---------------------------------------------------------------------------------

// Transforms a hop of each signal, appends the error E = D - Y to its history and writes the
// network's input frame: bins 0..511 of D real, E real, D imaginary, E imaginary; despite the name
// neither magnitudes nor phases.
void nnaec_calc_input_mag_phase(LAYER_DATA_NNAEC* d, const float* mic, const float* yn,
                                float* frame) {
  Spectrum D, E;
  quibo::analyse_hop(d->inMic, mic, &D);
  quibo::analyse_hop(d->inRef, yn, &E);
  for (int k = 0; k < kBins; ++k) {
    E.real[k] = D.real[k] - E.real[k];
    E.imag[k] = D.imag[k] - E.imag[k];
  }
  quibo::push_spectrum(d->spec_real, d->spec_imag, E);
  const float* rows[] = {D.real, E.real, D.imag, E.imag};
  for (int c = 0; c < Input1::kChannels; ++c) copy(frame + c * Input1::kRow + 1, rows[c], kHop);
}

// Sigmoid of P (two rows of 512) through the complex groups of 8 x 8: (R + jI)(P_re + j P_im),
// where each of the four products adds its own bias.
void nnaec_calc_mask_scale(LAYER_DATA_NNAEC* d, const AEC_Denoise_Net& net, const float* P) {
  const LAYER_CONV_NNAEC &R = *net.sys_real_conv, &I = *net.sys_imag_conv;
  const quibo::FloatKernels& run = quibo::kernels().net;
  float re_by_R[kHop], im_by_I[kHop], re_by_I[kHop], im_by_R[kHop];
  run.bin_groups(re_by_R, R.weight, R.bias, P);
  run.bin_groups(im_by_I, I.weight, I.bias, P + kHop);
  run.bin_groups(re_by_I, I.weight, I.bias, P);
  run.bin_groups(im_by_R, R.weight, R.bias, P + kHop);
  for (int k = 0; k < kHop; ++k) {
    d->mask_real[k] = re_by_R[k] - im_by_I[k];
    d->mask_imag[k] = im_by_R[k] + re_by_I[k];
  }
  d->mask_real[kHop] = d->mask_imag[kHop] = 0.0f;
  run.act_h(d->mask_real, d->mask_real, kBins, quibo::Activation::kSigmoid);
  run.act_h(d->mask_imag, d->mask_imag, kBins, quibo::Activation::kSigmoid);
}

// Real and imaginary parts have masks of their own: no complex product.
void nnaec_mask_input(const LAYER_DATA_NNAEC* d, Spectrum* spectrum) {
  constexpr int kLowBins = 4;  // up to 47 Hz there is no speech to keep
  constexpr float kLowGain = 0.2f;
  for (int k = 0; k < kBins; ++k) {
    spectrum->real[k] *= d->mask_real[k];
    spectrum->imag[k] *= d->mask_imag[k];
  }
  for (int k = 0; k < kLowBins; ++k) {
    spectrum->real[k] *= kLowGain;
    spectrum->imag[k] *= kLowGain;
  }
}

void nnaec_isft_to_out(LAYER_DATA_NNAEC* d, const Spectrum& spectrum, int16_t* out) {
  float frame[quibo::kStftFrame];
  quibo::synthesise_frame(spectrum, frame);
  for (int n = 0; n < kHop; ++n) {
    out[n] = quibo::float_to_int16(quibo::limit_output(d->ovlp_add[n] + frame[n]));
  }
  copy(d->ovlp_add, frame + kHop, kHop);
}

void forward(AEC_Denoise_Net* net, const float* mic, const float* yn, int16_t* out, int steps) {
  LAYER_DATA_NNAEC* d = net->dlayer;
  Spectrum delayed[kMaxSteps];
  Input1::clear_guards(window, steps);
  for (int s = 0; s < steps; ++s) {
    nnaec_calc_input_mag_phase(d, mic + s * kHop, yn + s * kHop,
                               Input1::fresh(window) + s * Input1::kFrame);
    copy(delayed[s].real, d->spec_real, kBins);
    copy(delayed[s].imag, d->spec_imag, kBins);
  }

  nnaec_inp_conv<Input1, Input2>(d->x_inp1_input, *net->inp_conv1, steps);
  nnaec_inp_conv<Input2, Input3>(d->x_inp2_input, *net->inp_conv2, steps);
  nnaec_inp_conv<Input3, Input4>(d->x_inp3_input, *net->inp_conv3, steps);
  run_conv(input_job<Input4>(d->x_inp4_input, steps), *net->inp_conv4, kHidden, sh_out1, kPositions,
           kMap);

  encoder_stage(d->enc1_input, *net->enc_conv1, d->x1_input, d->o1_input, steps);
  encoder_stage(d->enc2_input, *net->enc_conv2, d->x2_input, d->o2_input, steps);
  encoder_stage(d->enc3_input, *net->enc_conv3, d->x3_input, d->o3_input, steps);
  encoder_stage(d->enc4_input, *net->enc_conv4, d->x4_input, nullptr, steps);

  nnaec_time_gru_forward(*net->t_gru1, steps);
  nnaec_freq_gru_forward(*net->f_gru1, steps);
  nnaec_time_gru_forward(*net->t_gru2, steps);
  nnaec_freq_gru_forward(*net->f_gru2, steps);
  nnaec_time_gru_forward(*net->t_gru3, steps);
  nnaec_freq_gru_forward(*net->f_gru3, steps);

  // Skips: around the first stage its own input, then the encoder's outputs 3, 2, 1, which are the
  // inputs of its stages 4, 3, 2.
  nnaec_enc_dec_conv(d->dec1_input, *net->dec_conv1, sh_out1, kPositions, kMap, steps);
  decoder_stage(d->dec2_input, *net->dec_conv2, d->enc4_input, steps);
  decoder_stage(d->dec3_input, *net->dec_conv3, d->enc3_input, steps);
  decoder_stage(d->dec4_input, *net->dec_conv4, d->enc2_input, steps);

  Pixel1::pad(window, sh_out1, steps);
  quibo::upsample_into<Pixel1, 64, Pixel2>(window, d->sub1_input, *net->sub_pix_conv1, steps,
                                           sh_out2);
  quibo::upsample_into<Pixel2, 32, Pixel3>(window, d->sub2_input, *net->sub_pix_conv2, steps,
                                           sh_out2);
  quibo::upsample_into<Pixel3, 16, Pixel4>(window, d->sub3_input, *net->sub_pix_conv3, steps,
                                           sh_out2);
  quibo::upsample<Pixel4, 4>(window, d->sub4_input, *net->sub_pix_conv4, steps, sh_out2, sh_out1,
                             kHop, 2 * kHop);

  for (int s = 0; s < steps; ++s) {
    nnaec_calc_mask_scale(d, *net, sh_out1 + s * 2 * kHop);
    nnaec_mask_input(d, &delayed[s]);
    nnaec_isft_to_out(d, delayed[s], out + s * kHop);
  }
}

}  // namespace

void nn_aec_denoise_forward(AEC_Denoise_Net* net, const float* mic, const float* yn, int16_t* out) {
  forward(net, mic, yn, out, 1);
}

void nn_aec_denoise_forward_frame(AEC_Denoise_Net* net, const float* mic, const float* yn,
                                  int16_t* out) {
  forward(net, mic, yn, out, 2);
}
