// The layers of the float networks written out naively, as a reference for the engine: patches are
// gathered, every sum is four partial sums, everything is allocated anew. Single precision, in the
// documented order of operations, so the result is the engine's to the bit wherever the same
// exponential and transform are used. Compiled without contraction like everything else.
#pragma once

#include <cmath>
#include <complex>
#include <functional>
#include <vector>

namespace naive {

using Row = std::vector<float>;
using Map = std::vector<Row>;  // [channel][position]
using Exp = std::function<float(float)>;

inline float dot(const float* a, const float* b, size_t n) {
  float lane[4] = {};
  for (size_t j = 0; j < n; ++j) lane[j % 4] += a[j] * b[j];
  return (lane[0] + lane[2]) + (lane[1] + lane[3]);
}

inline float fast_exp(float x) {
  float y = x * 0.0009765625f + 1.0f;
  for (int i = 0; i < 10; ++i) y = y * y;
  return y;
}

inline float sigmoid(float x, const Exp& e) {
  return x > 10 ? 1.0f : x < -10 ? 0.0f : 1.0f / (1.0f + e(-x));
}

inline float tanh(float x, float limit, const Exp& e) {
  if (x > limit) return 1.0f;
  if (x < -limit) return -1.0f;
  const float t = e(x + x);
  return (t - 1.0f) / (t + 1.0f);
}

inline Map pad(const Map& map) {
  Map padded;
  for (const Row& row : map) {
    padded.emplace_back(1, 0.0f);
    padded.back().insert(padded.back().end(), row.begin(), row.end());
    padded.back().push_back(0.0f);
  }
  return padded;
}

// The last `times` padded frames of a layer, zero before the first.
class History {
 public:
  History(size_t times, size_t channels, size_t inputs)
      : frames_(times, Map(channels, Row(inputs + 2, 0.0f))) {}
  void push(const Map& map) {
    frames_.erase(frames_.begin());
    frames_.push_back(pad(map));
  }
  // Kernel of times x 3. `summed`: how many products a sum takes; beyond a patch's own size it runs
  // into the next patch, and behind the last one into zeros.
  Map convolve(const float* weight, const float* bias, const float* prelu, size_t outputs,
               size_t stride, size_t summed = 0) const {
    const size_t positions = (frames_[0][0].size() - 2) / stride;
    std::vector<float> patches;
    for (size_t p = 0; p < positions; ++p) {
      for (size_t c = 0; c < frames_[0].size(); ++c) {
        for (const Map& frame : frames_) {
          for (size_t f = 0; f < 3; ++f) patches.push_back(frame[c][stride * p + f]);
        }
      }
    }
    const size_t size = patches.size() / positions;
    if (!summed) summed = size;
    patches.resize(patches.size() + summed - size, 0.0f);
    Map out(outputs, Row(positions));
    for (size_t k = 0; k < outputs; ++k) {
      for (size_t p = 0; p < positions; ++p) {
        float y = dot(weight + k * size, &patches[p * size], summed) + bias[k];
        if (prelu && y < 0) y *= prelu[k];
        out[k][p] = y;
      }
    }
    return out;
  }

 private:
  std::vector<Map> frames_;
};

// The first half of the channels gives the even positions, the second half the odd ones.
inline Map shuffle(const Map& in) {
  const size_t half = in.size() / 2, positions = in[0].size();
  Map out(half, Row(2 * positions));
  for (size_t c = 0; c < half; ++c) {
    for (size_t p = 0; p < positions; ++p) {
      out[c][2 * p] = in[c][p];
      out[c][2 * p + 1] = in[half + c][p];
    }
  }
  return out;
}

inline Map sum(Map a, const Map& b) {
  for (size_t c = 0; c < a.size(); ++c) {
    for (size_t p = 0; p < a[c].size(); ++p) a[c][p] += b[c][p];
  }
  return a;
}

struct Gru {
  const float *ir, *iz, *in_x, *in_h;
  size_t in_stride;
  const float *bias_ir, *bias_iz, *bias_in1, *bias_in2;
  float tanh_limit;
  const float *linear_weight, *linear_bias, *norm_weight, *norm_bias;

  // One cell: x and h to the next h.
  void step(const Row& x, float* h, const Exp& e) const {
    const size_t H = x.size();
    Row xh = x, next(H);
    xh.insert(xh.end(), h, h + H);
    for (size_t k = 0; k < H; ++k) {
      const float r = sigmoid(dot(ir + k * 2 * H, xh.data(), 2 * H) + bias_ir[k], e);
      const float z = sigmoid(dot(iz + k * 2 * H, xh.data(), 2 * H) + bias_iz[k], e);
      const float from_x = dot(in_x + k * in_stride, x.data(), H) + bias_in1[k];
      const float from_h = dot(in_h + k * in_stride, h, H) + bias_in2[k];
      const float n = tanh(from_x + r * from_h, tanh_limit, e);
      next[k] = (1.0f - z) * n + z * h[k];
    }
    std::copy(next.begin(), next.end(), h);
  }

  // A block over all positions: along time with one state per position, or along frequency.
  Map block(const Map& in, float* states, bool along_time, const Exp& e) const {
    const size_t H = in.size(), positions = in[0].size();
    Map out = in;
    Row carried(H, 0.0f);
    for (size_t g = 0; g < positions; ++g) {
      Row x(H), y(H);
      for (size_t k = 0; k < H; ++k) x[k] = in[k][g];
      float* h = along_time ? states + g * H : carried.data();
      step(x, h, e);
      for (size_t k = 0; k < H; ++k) y[k] = h[k] < 0 ? 0.0f : h[k];
      for (size_t k = 0; k < H; ++k) {
        float v = dot(linear_weight + k * H, y.data(), H) + linear_bias[k];
        if (norm_weight) v = norm_weight[k] * v + norm_bias[k];
        out[k][g] = v + in[k][g];
      }
    }
    return out;
  }
};

// ---- Transforms in double precision ----------------------------------------------------------

constexpr int kHop = 512, kFrame = 1024, kBins = 513;

inline double hann(int n) {
  return 0.5 - 0.5 * std::cos(2 * M_PI * n / kFrame);
}
inline float six_decimals(double x) {
  return static_cast<float>(std::round(x * 1e6) / 1e6);
}
inline float analysis_window(int n) {
  return six_decimals(hann(n));
}
inline float synthesis_window(int n) {
  const double h = hann(n), g = hann((n + kHop) % kFrame);
  return six_decimals(h / (h * h + g * g));
}

using Spectrum = std::vector<std::complex<float>>;

inline const std::vector<std::complex<double>>& turns() {
  static const std::vector<std::complex<double>> table = [] {
    std::vector<std::complex<double>> t(kFrame);
    for (int k = 0; k < kFrame; ++k) t[k] = std::polar(1.0, -2 * M_PI * k / kFrame);
    return t;
  }();
  return table;
}

inline Spectrum dft(const Row& x) {
  Spectrum out(kBins);
  for (int k = 0; k < kBins; ++k) {
    std::complex<double> total;
    for (int n = 0; n < kFrame; ++n) total += static_cast<double>(x[n]) * turns()[k * n % kFrame];
    out[k] = std::complex<float>(total);
  }
  return out;
}

inline Row inverse_dft(const Spectrum& bins) {
  Row out(kFrame);
  for (int n = 0; n < kFrame; ++n) {
    double total = bins[0].real() + (n % 2 ? -1 : 1) * bins[kHop].real();
    for (int k = 1; k < kHop; ++k) {
      total += 2 * (std::complex<double>(bins[k]) * std::conj(turns()[k * n % kFrame])).real();
    }
    out[n] = static_cast<float>(total / kFrame);
  }
  return out;
}

}  // namespace naive
