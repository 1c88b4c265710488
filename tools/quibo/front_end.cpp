#include "front_end.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>
#include <optional>

#include "api/WakeupApi.h"
#include "denoise/denoise.h"
#include "doa/customs_doa_api.h"
#include "quiet.h"
#include "wakeup/ChineseConv.h"
#include "wakeup/QuibWakeupApi.h"

namespace quibo::recordings {

namespace {

constexpr double kThreshold = 1.2;  // the engine's own

DECODER* decoder_of(KTWakeup front_end) {
  return static_cast<KTWakeupParam*>(front_end->handle4)->handle0->mynet.pdec;
}

void clear_recurrent_states(void* noise_suppressor) {
  constexpr size_t kStates = 32 * 32;  // positions x units
  const DenoiseNet& net = *static_cast<KTANCParams*>(noise_suppressor)->Mynet;
  for (const LAYER_GRU_COMMON* layer : {net.t_gru1, net.t_gru2, net.t_gru3}) {
    std::fill_n(layer->prev_stat, kStates, 0.0f);
  }
}

}  // namespace

FrontEnd::FrontEnd(const FrontEndOptions& options)
    : threshold_scale_(static_cast<float>(options.threshold / kThreshold)) {
  std::optional<QuietOutput> quiet;
  if (options.silence) quiet.emplace();
  if (Quibo_wakeup_init(&handle_, 0) != 0) throw std::bad_alloc();
  clear_recurrent_states(handle_->DAncHnadle0);  // shared by all three
  DECODER* decoder = decoder_of(handle_);
  decoder->observe = observe;
  decoder->observer = this;
  // The engine sets its threshold at every step. The divisor of the costs stays as it is set: it
  // makes them as many times smaller as the threshold is to be larger.
  decoder->pWords[0].div *= threshold_scale_;
}

FrontEnd::~FrontEnd() {
  Quibo_wakeup_unit(handle_);
}

void FrontEnd::observe(void* self, const KWS_STEP* step) {
  FrontEnd* front_end = static_cast<FrontEnd*>(self);
  front_end->phrase_.add(decoder_of(front_end->handle_)->pWords[0], step->posteriors,
                         front_end->block_end_);
  front_end->block_end_ += QUIBO_BLOCK;
  if (!step->woke) return;
  const auto [start, end] = front_end->phrase_.find();
  front_end->phrase_.clear();
  Wake wake{};
  wake.start = static_cast<double>(start) / QUIBO_SAMPLE_RATE;
  wake.end = static_cast<double>(end) / QUIBO_SAMPLE_RATE;
  wake.cost = step->cost * front_end->threshold_scale_;
  wake.threshold = step->thres * front_end->threshold_scale_;
  front_end->woken_ = wake;
}

void FrontEnd::process(const Frame& frame, Output* output) {
  int16_t mic[kMics][QUIBO_FRAME];
  std::memcpy(mic, frame.track, sizeof mic);
  for (auto& samples : mic) enc_data(samples, QUIBO_FRAME);
  Quibo_wakeup_three_write_data(handle_, mic[0], mic[1], mic[2], frame.track[kRef], output->mic[0],
                                output->mic[1], output->mic[2], output->clean);

  const float* d = kesto_laec_micdata(handle_->handle1);
  const float* y = kesto_laec_yn(handle_->handle1);
  float dd = 0, yy = 0, dy = 0;
  for (int i = 0; i < QUIBO_FRAME; ++i) {
    dd += d[i] * d[i];
    yy += y[i] * y[i];
    dy += d[i] * y[i];
  }
  output->mic_power = static_cast<double>(dd);
  output->echo_power = static_cast<double>(yy);
  output->shared_power = static_cast<double>(dy);

  woken_.reset();
  block_end_ = frame_ * QUIBO_FRAME - handle_->data_doa_len + QUIBO_BLOCK - kCancelledDelay;
  int32_t wake = -1;
  const int32_t angle = Quibo_doa_three_write_data(handle_, &wake, output->mic[0], output->mic[1],
                                                   output->mic[2], output->clean, QUIBO_FRAME);
  output->wake.reset();
  if (wake >= 0) {
    output->wake = woken_;
    output->wake->frame = frame_;
    output->wake->sample = (frame_ + 1) * QUIBO_FRAME;
    output->wake->angle = angle;
    const float* vector = static_cast<KTDParama*>(handle_->handle0)->doanet.dlayer->decided;
    output->wake->angle_length = angle >= 0 ? std::hypot(vector[0], vector[1]) : 0.0f;
  }
  ++frame_;
}

}  // namespace quibo::recordings
