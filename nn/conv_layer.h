// The input side of a convolution over time and frequency, shared by the two suppressors.
//
// A frame is one step's map: `channels` rows of `inputs` values with a zero on each side. A layer
// looks at `times` consecutive frames, oldest first; between calls its history holds the last
// `stored` of them (times or times-1). A call works on one or more steps at once: its window is the
// times-1 frames kept and one fresh frame per step.
//
// A weight row is ordered by channel, then frame (oldest first), then position. Output p of a layer
// reads columns stride*p, stride*p+1, stride*p+2 of the padded rows.
#pragma once

#include "dsp/kernels.h"
#include "dsp/memory.h"

namespace quibo {

template <int channels, int inputs, int times, int stride, int stored>
struct ConvInput {
  static_assert(stride == 1 || stride == 2, "strides in use");
  static_assert(stored == times || stored == times - 1, "frames between calls");
  static constexpr int kChannels = channels;
  static constexpr int kInputs = inputs;
  static constexpr int kRow = inputs + 2;
  static constexpr int kFrame = channels * kRow;
  static constexpr int kKept = times - 1;
  static constexpr int kHistory = stored * kFrame;
  static constexpr int kTaps = channels * times * 3;
  static_assert(kTaps <= kConvMaxTaps, "a kernel's copy of the weights holds a row");
  static constexpr int kOutputs = inputs / stride;
  static constexpr int kHalfRow = kRow / 2;
  // Stride 2 reads a split form of the window: of each row the even columns, then the odd ones,
  // each from a cache line on, so that consecutive outputs read consecutive values.
  static constexpr int kSplitHalf = (kHalfRow + 15) / 16 * 16;
  static constexpr int kSplitRow = 2 * kSplitHalf;
  static constexpr int kSplitFrame = channels * kSplitRow;

  static constexpr int window_floats(int steps) { return (kKept + steps) * kFrame; }
  static constexpr int split_floats(int steps) { return (kKept + steps) * kSplitFrame; }

  // Where the frame of the call's first step goes in the window; the others follow.
  static float* fresh(float* window) { return window + kKept * kFrame; }

  static void clear_guards(float* window, int steps) {
    float* row = fresh(window);
    for (int r = 0; r < steps * channels; ++r, row += kRow) row[0] = row[kRow - 1] = 0.0f;
  }

  // Copies a dense map of every step into the window, between guards.
  static void pad(float* window, const float* maps, int steps) {
    clear_guards(window, steps);
    float* row = fresh(window);
    for (int r = 0; r < steps * channels; ++r, row += kRow) {
      copy(row + 1, maps + r * inputs, inputs);
    }
  }

  // Puts the kept frames before the fresh ones and stores what the next call keeps.
  static void exchange_history(float* history, float* window, int steps) {
    copy(window, history + (stored - kKept) * kFrame, kKept * kFrame);
    copy(history, window + (kKept + steps - stored) * kFrame, kHistory);
  }

  // Frames of the split form lie to_frame apart.
  static void split(float* to, const float* window, int steps, int to_frame = kSplitFrame) {
    for (int f = 0; f < kKept + steps; ++f) {
      for (int c = 0; c < channels; ++c) {
        float* even = to + f * to_frame + c * kSplitRow;
        kernels().net.split_columns(even, even + kSplitHalf, window + f * kFrame + c * kRow,
                                    kHalfRow);
      }
    }
  }

  struct Taps {
    int32_t at[kTaps];
    constexpr Taps() : at() {
      int j = 0;
      for (int c = 0; c < channels; ++c) {
        for (int t = 0; t < times; ++t) {
          for (int f = 0; f < 3; ++f, ++j) at[j] = tap(c, t, f);
        }
      }
    }
  };

  // Where a job's input has the value of channel c, frame t, column f for output 0.
  static constexpr int tap(int c, int t, int f, int split_frame = kSplitFrame) {
    return stride == 1 ? t * kFrame + c * kRow + f
                       : t * split_frame + c * kSplitRow + (f == 1 ? kSplitHalf : f / 2);
  }

  // A job that reads `input`: the window, or its split form for stride 2.
  static ConvJob job(const float* input, int steps) {
    static constexpr Taps kTapOffsets;
    ConvJob j = {};
    j.row_stride = kTaps;
    j.tap_offset = kTapOffsets.at;
    j.taps = kTaps;
    j.positions = kOutputs;
    j.steps = steps;
    j.input = input;
    j.input_step = stride == 1 ? kFrame : kSplitFrame;
    return j;
  }
};

// Sub-pixel shuffle of every step: 2C rows of `inputs` values become C rows of 2*inputs, the first
// half of the channels giving the even positions and the second half the odd ones. Rows of the
// result lie to_row apart, steps to_step.
inline void shuffle_up(float* to, int to_row, int to_step, const float* maps, int channels,
                       int inputs, int steps) {
  const int half = channels / 2;
  for (int s = 0; s < steps; ++s) {
    const float* map = maps + s * channels * inputs;
    for (int c = 0; c < half; ++c) {
      kernels().net.join_columns(to + s * to_step + c * to_row, map + c * inputs,
                                 map + (half + c) * inputs, inputs);
    }
  }
}

// Runs a job with the tables of a layer record (its fields weight, bias and prelu). Rows of the
// output lie output_row apart, steps output_step.
template <class Layer>
void run_conv(ConvJob job, const Layer& layer, int channels, float* output, int output_row,
              int output_step) {
  job.weight = layer.weight;
  job.bias = layer.bias;
  job.prelu = layer.prelu;
  job.out_channels = channels;
  job.output = output;
  job.output_stride = output_row;
  job.output_step = output_step;
  kernels().net.conv(job);
}

// An upsampling layer on the window's fresh frames: the convolution goes to `maps`, channels x
// kOutputs per step, and from there shuffled to `to`.
template <class Input, int channels, class Layer>
void upsample(float* window, float* history, const Layer& layer, int steps, float* maps, float* to,
              int to_row, int to_step) {
  Input::clear_guards(window, steps);
  Input::exchange_history(history, window, steps);
  run_conv(Input::job(window, steps), layer, channels, maps, Input::kOutputs,
           channels * Input::kOutputs);
  shuffle_up(to, to_row, to_step, maps, channels, Input::kOutputs, steps);
}

// The same into the fresh frames of the next layer, in the same window.
template <class Input, int channels, class Next, class Layer>
void upsample_into(float* window, float* history, const Layer& layer, int steps, float* maps) {
  upsample<Input, channels>(window, history, layer, steps, maps, Next::fresh(window) + 1,
                            Next::kRow, Next::kFrame);
}

}  // namespace quibo
