// Every kernel of every instruction set that this machine has, beside its scalar twin, on the same
// bytes: the self-checking row ends the process at the first bit that differs.

#include <algorithm>
#include <memory>

#include "aec/Laec.h"
#include "doa/ring_doa.h"
#include "fuzz/input.h"
#include "kernels/checked_kernels.h"

using quibo::Kernels;
using quibo_fuzz::Input;

namespace {

template <class T>
std::vector<T> whole_numbers(Input& in, int count) {
  std::vector<T> x;
  for (const int16_t v : in.samples(count)) {
    x.push_back(static_cast<T>(sizeof(T) > 2 ? v * 65536 + in.byte() : v));
  }
  return x;
}

int multiple(Input& in, int of, int largest) {
  return of * (1 + in.choose(largest / of));
}

void transforms(Input& in, const Kernels& k) {
  const int sizes[] = {512, 1024, 2048};
  const quibo::FftKernels* const ffts[] = {&k.fft512, &k.fft1024, &k.fft2048};
  const int which = in.choose(3);
  std::vector<float> x = in.floats(sizes[which] + 2), y(x.size());
  in.choose(2) ? ffts[which]->forward(x.data(), y.data())
               : ffts[which]->inverse(x.data(), y.data());
}

void canceller(Input& in, const Kernels& k) {
  const auto st = std::make_unique<LAEC>();
  init_laec(st.get());
  auto fill = [&](float* to, int count) {
    const std::vector<float> x = in.floats(count);
    std::copy(x.begin(), x.end(), to);
  };
  fill(st->micdata, LAEC_DELAY + LAEC_SHIFT);
  fill(st->refdata, LAEC_FFT);
  fill(st->pmk, LAEC_BINS);
  fill(&st->xk[0][0].real, 2 * LAEC_PARTITIONS * LAEC_BINS);
  fill(&st->wk[0][0].real, 2 * LAEC_PARTITIONS * LAEC_BINS);
  fill(&st->hk[0].real, 2 * LAEC_BINS);
  fill(&st->fftdata[0].real, 2 * LAEC_BINS);
  k.laec.estimate_echo(st.get());
  k.laec.adapt(st.get());
  k.laec.update_gain(st.get());
  k.laec.apply_gain(st.get());
}

void dense_floats(Input& in, const Kernels& k) {
  const int rows = multiple(in, 4, 64), depth = multiple(in, 4, 128);
  const std::vector<float> matrix = in.floats(rows * depth), x = in.floats(std::max(rows, depth));
  std::vector<float> y(x.size());
  const auto flag = static_cast<quibo::Activation>(in.choose(2));
  switch (in.choose(6)) {
    case 0:
      k.net.arr_mul_arr_float(matrix.data(), x.data(), depth);
      break;
    case 1:
      k.net.mat_mul_vec_float(y.data(), matrix.data(), x.data(), rows, depth);
      break;
    case 2:
      k.net.act_h(y.data(), x.data(), rows - in.choose(4), flag);
      break;
    case 3:
      k.net.vec_act_h(y.data(), x.data(), rows - in.choose(4), flag);
      break;
    case 4: {
      const std::vector<float> row = in.floats(2 * rows);
      std::vector<float> even(static_cast<size_t>(rows)), odd = even, joined = row;
      k.net.split_columns(even.data(), odd.data(), row.data(), rows);
      k.net.join_columns(joined.data(), even.data(), odd.data(), rows);
      break;
    }
    default: {
      const std::vector<float> weight = in.floats(64 * 8 * 8), bias = in.floats(512);
      std::vector<float> out(512);
      k.net.bin_groups(out.data(), weight.data(), bias.data(), in.floats(512).data());
    }
  }
}

void convolution(Input& in, const Kernels& k) {
  quibo::ConvJob job = {};
  job.taps = multiple(in, 4, 40);
  job.out_channels = multiple(in, 4, 16);
  job.positions = multiple(in, 32, 96);
  job.steps = 1 + in.choose(2);
  job.row_stride = job.taps + in.choose(3);
  job.input_step = job.positions + in.choose(8);
  job.output_stride = job.residual_stride = job.positions + in.choose(3);
  job.output_step = job.residual_step = job.output_stride * job.out_channels;
  std::vector<int32_t> offsets;
  for (int j = 0; j < job.taps; ++j) offsets.push_back(in.choose(100));
  const std::vector<float> weight = in.floats(job.out_channels * job.row_stride + 4);
  const std::vector<float> input =
      in.floats((job.steps - 1) * job.input_step + 100 + job.positions);
  std::vector<float> output(static_cast<size_t>(job.steps * job.output_step));
  const std::vector<float> residual = in.floats(job.steps * job.output_step);
  const std::vector<float> bias = in.floats(job.out_channels), slope = in.floats(job.out_channels),
                           scale = in.floats(job.out_channels), shift = in.floats(job.out_channels);
  job.weight = weight.data();
  job.input = input.data();
  job.output = output.data();
  job.tap_offset = offsets.data();
  job.bias = bias.data();
  const int set = in.choose(8);
  if (set & 1) job.prelu = slope.data();
  if (set & 2) job.scale = scale.data(), job.shift = shift.data();
  if (set & 4) job.residual = residual.data();
  k.net.conv(job);
}

template <int H>
void recurrent(Input& in, const quibo::GruKernels& gru) {
  quibo::GruJob job = {};
  job.steps = 1 + in.choose(2);
  job.weight_in_stride = in.choose(2) ? H : 2 * H;
  const std::vector<float> r = in.floats(2 * H * H), z = in.floats(2 * H * H),
                           n = in.floats(3 * H * H), linear = in.floats(H * H),
                           bias = in.floats(5 * H), norm = in.floats(2 * H);
  const int map = H * quibo::kGruPositions;
  std::vector<float> state = in.floats(map), scratch(quibo::gru_scratch(H));
  const std::vector<float> input = in.floats(job.steps * map);
  std::vector<float> output(input.size());
  job.weight_ir = r.data();
  job.weight_iz = z.data();
  job.weight_in_x = n.data();
  job.weight_in_h = n.data() + H;
  job.bias_ir = bias.data();
  job.bias_iz = bias.data() + H;
  job.bias_in1 = bias.data() + 2 * H;
  job.bias_in2 = bias.data() + 3 * H;
  job.linear_weight = linear.data();
  job.linear_bias = bias.data() + 4 * H;
  if (in.choose(2)) job.norm_weight = norm.data(), job.norm_bias = norm.data() + H;
  job.state = state.data();
  job.input = input.data();
  job.output = output.data();
  job.scratch = scratch.data();
  in.choose(2) ? gru.time(job) : gru.frequency(job);
}

void direction(Input& in, const Kernels& k) {
  if (in.choose(2)) {
    const std::vector<float> a = in.floats(2 * DOA_BINS), b = in.floats(2 * DOA_BINS);
    std::vector<float> g(a.size());
    k.doa.phase_transform(reinterpret_cast<const complex_t*>(a.data()),
                          reinterpret_cast<const complex_t*>(b.data()),
                          reinterpret_cast<complex_t*>(g.data()));
    return;
  }
  const int channels = 16 + in.choose(49), taps = 8 + in.choose(2);
  const std::vector<float> input = in.floats(taps * channels), weights = in.floats(taps * channels);
  const float* rows[9] = {};
  for (int t = 0; t < taps; ++t) rows[t] = input.data() + t * channels;
  std::vector<float> out(static_cast<size_t>(channels));
  k.doa.depthwise(rows, weights.data(), taps, channels, out.data());
}

void quantised(Input& in, const Kernels& k) {
  const int which = in.choose(5);
  const int rows = 16 + in.choose(48), depth = 64 + in.choose(193);
  const int small_rows = multiple(in, 16, 64), small_depth = multiple(in, 4, 48);
  const int positions = multiple(in, 3, 21);
  const std::vector<uint8_t> codes = whole_numbers<uint8_t>(in, 64 * 48),
                             second = whole_numbers<uint8_t>(in, 64);
  const std::vector<int8_t> weight = whole_numbers<int8_t>(in, 64 * 256);
  const std::vector<int32_t> bias = whole_numbers<int32_t>(in, 64);
  std::vector<int32_t> sums(64 * 21);
  switch (which) {
    case 0:
      k.int8.mat_vec(codes.data(), weight.data(), bias.data(), rows, depth, sums.data());
      break;
    case 1:
      k.int8.mat_mul(codes.data(), positions, weight.data(), bias.data(), small_rows, small_depth,
                     sums.data());
      break;
    case 2:
      k.int8.per_channel(codes.data(), weight.data(), bias.data(), rows, sums.data());
      break;
    case 3: {
      quibo::Requantiser q = {in.any<float>(), in.any<float>(), 0.0f, 0.0f, in.choose(256)};
      q.low = static_cast<float>(-q.zero_point);
      q.high = static_cast<float>(255 - q.zero_point);
      std::vector<uint8_t> out(64);
      k.int8.requantise(bias.data(), rows, q, out.data());
      break;
    }
    default:
      k.int8.add_rescaled(codes.data(), in.choose(256), second.data(), in.choose(256),
                          in.any<float>(), rows, sums.data());
  }
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  int variants = 0;
  while (quibo::available_kernels(variants)) ++variants;
  const Kernels& k = quibo::checked_kernels(*quibo::available_kernels(in.choose(variants)));
  switch (in.choose(8)) {
    case 0:
      transforms(in, k);
      break;
    case 1:
      canceller(in, k);
      break;
    case 2:
      dense_floats(in, k);
      break;
    case 3:
      convolution(in, k);
      break;
    case 4:
      recurrent<32>(in, k.net.denoise_gru);
      break;
    case 5:
      recurrent<64>(in, k.net.aec_gru);
      break;
    case 6:
      direction(in, k);
      break;
    default:
      quantised(in, k);
  }
  return 0;
}
