// What the bindings read and set in the modules' records.
#pragma once

#include <limits>

#include "denoise/denoise.h"
#include "wakeup/ChineseConv.h"

namespace quibo::python {

// The cost below which a phrase counts, unless the engine's user says otherwise. After ten minutes
// without a wake the engine asks for less than 1.0.
constexpr double kThreshold = 1.2;

// The engine's operating point, and its cost of the last step in the scale of the threshold asked for.
class Observer {
 public:
  // Observes the engine as long as both live. The engine sets the thresholds themselves at every
  // step. The divisor of the costs stays as it is set, so that moves the threshold: costs come out as
  // many times smaller as it is larger.
  void attach(KTCWakeupParam& engine, double threshold) {
    decoder_ = engine.mynet.pdec;
    scale_ = threshold / kThreshold;
    decoder_->pWords[0].div = static_cast<float>(decoder_->pWords[0].div * scale_);
    decoder_->observe = [](void* self, const KWS_STEP* step) {
      static_cast<Observer*>(self)->see(*step);
    };
    decoder_->observer = this;
  }

  // Infinite where the step could not have woken, whatever the threshold.
  float cost() const { return cost_; }

 private:
  void see(const KWS_STEP& step) {
    cost_ = decoder_->blank_cnt > 0 ? std::numeric_limits<float>::infinity()
                                    : static_cast<float>(step.cost * scale_);
  }

  DECODER* decoder_ = nullptr;
  double scale_ = 1.0;
  float cost_ = 0.0f;
};

// The recurrent states of the noise suppressor, which all instances of the library share.
constexpr size_t kNoiseLayers = 3, kNoiseStates = 32 * 32;

inline LAYER_GRU_COMMON* noise_layer(void* handle, size_t i) {
  const DenoiseNet& net = *static_cast<KTANCParams*>(handle)->Mynet;
  LAYER_GRU_COMMON* const layers[kNoiseLayers] = {net.t_gru1, net.t_gru2, net.t_gru3};
  return layers[i];
}

}  // namespace quibo::python
