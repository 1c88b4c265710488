// Layer records of the two suppressors: creating them, and running a recurrent one. The records are
// the modules' own; the fields that matter have the same names in both.
#pragma once

#include "dsp/kernels.h"
#include "dsp/memory.h"

namespace quibo {

// The parameter tables of a layer.
struct ConvTables {
  const float *weight, *bias;
  const float* prelu;  // or null
};

struct GruTables {
  const float* weight;                       // the gates r, z, n of hidden x 2*hidden each
  const float* bias;                         // r, z, n of x, n of h
  const float *linear_weight, *linear_bias;  // hidden x hidden, hidden
  const float *norm_weight, *norm_bias;      // hidden each, or null: no affine step
};

template <class Layer>
bool create_conv(Layer** slot, const ConvTables& tables) {
  Layer* layer = *slot = allocate<Layer>();
  if (!layer) return false;
  layer->weight = tables.weight;
  layer->bias = tables.bias;
  layer->prelu = tables.prelu;
  return true;
}

template <int hidden, class Layer>
bool create_gru(Layer** slot, const GruTables& tables, float* state) {
  constexpr int kGate = hidden * 2 * hidden;
  Layer* layer = *slot = allocate<Layer>();
  if (!layer) return false;
  layer->weight_ir = tables.weight;
  layer->weight_iz = tables.weight + kGate;
  layer->weight_in = tables.weight + 2 * kGate;
  layer->bias_ir = tables.bias;
  layer->bias_iz = tables.bias + hidden;
  layer->bias_in1 = tables.bias + 2 * hidden;
  layer->bias_in2 = tables.bias + 3 * hidden;
  layer->linear_weight = tables.linear_weight;
  layer->linear_bias = tables.linear_bias;
  layer->prev_stat = state;
  return true;
}

// A recurrent block's job, without an affine step. weight_in_h and weight_in_stride say where the
// columns of h stand in weight_in: the suppressors lay that one table out differently.
template <class Layer>
GruJob gru_job(const Layer& layer, int weight_in_h, int weight_in_stride, const float* input,
               float* output, int steps, float* scratch) {
  GruJob job = {};
  job.weight_ir = layer.weight_ir;
  job.weight_iz = layer.weight_iz;
  job.weight_in_x = layer.weight_in;
  job.weight_in_h = layer.weight_in + weight_in_h;
  job.weight_in_stride = weight_in_stride;
  job.bias_ir = layer.bias_ir;
  job.bias_iz = layer.bias_iz;
  job.bias_in1 = layer.bias_in1;
  job.bias_in2 = layer.bias_in2;
  job.linear_weight = layer.linear_weight;
  job.linear_bias = layer.linear_bias;
  job.state = layer.prev_stat;
  job.input = input;
  job.output = output;
  job.steps = steps;
  job.scratch = scratch;
  return job;
}

}  // namespace quibo
