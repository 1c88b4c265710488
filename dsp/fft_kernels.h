// The real FFT, one body for every instruction set.
//
// The arithmetic is that of the radix-4 real DFT package the field knows as "fft4g" (T. Ooura):
// radix-4 stages (cft1st, cftmdl), a last radix-4 or radix-2 stage without twiddles (cftfsub,
// cftbsub) and the pass between the complex transform of n/2 points and the real one (rftfsub,
// rftbsub). Every value goes through the same operations in the same order. What differs is where
// values lie between the stages: the package permutes its data first and works in place; here each
// stage reads natural order from one buffer and writes to another at the place where its output
// belongs (a self-sorting or Stockham transform), so there is no bit-reversal pass, no work area,
// and every access is to consecutive addresses. Real and imaginary parts lie in separate arrays
// between the stages.
//
// Before a stage, `positions` = 1, 4, 16, ... outputs are sorted and `4*count` = points/positions
// inputs remain; element (i, p) lies at i*positions + p. The stage combines rows i, i+count,
// i+2*count, i+3*count into one row i of 4*positions: its output r for position p goes to
// r*positions + p of that row.
#pragma once

#include "dsp/complex_reg.h"
#include "dsp/fft_tables.h"
#include "dsp/simd_scalar.h"

namespace quibo {
namespace {

// A split complex array. The pad keeps the two halves off the same 4 KiB alias, where a load would
// wait for an unrelated store.
template <int count>
struct SplitComplex {
  alignas(64) float re[count + 16];
  alignas(64) float im[count];
};

template <class V>
struct Quad {
  ComplexReg<V> y0, y1, y2, y3;
};

// The radix-4 butterfly in its three forms. Inputs x0..x3 stand a quarter of the sub-transform
// apart.
template <class V>
struct Butterfly {
  using C = ComplexReg<V>;

  static Quad<V> plain(C x0, C x1, C x2, C x3) {
    const C even_sum = x0 + x2, even_diff = x0 - x2, odd_sum = x1 + x3, odd_diff = x1 - x3;
    return {even_sum + odd_sum, add_turned(even_diff, odd_diff), even_sum - odd_sum,
            sub_turned(even_diff, odd_diff)};
  }

  static Quad<V> twiddled(C x0, C x1, C x2, C x3, C w1, C w2, C w3) {
    const Quad<V> q = plain(x0, x1, x2, x3);
    return {q.y0, w1 * q.y1, w2 * q.y2, w3 * q.y3};
  }

  // The half-way entry, w1 = (c, c), w2 = j, w3 = (-c, c) with c = cos(pi/4), in the package's own
  // shorter form.
  static Quad<V> half_way(C x0, C x1, C x2, C x3, typename V::Reg c) {
    const C even_sum = x0 + x2, even_diff = x0 - x2, odd_sum = x1 + x3, odd_diff = x1 - x3;
    const C t1 = add_turned(even_diff, odd_diff);
    const C t3 = {V::add(odd_diff.im, even_diff.re), V::sub(odd_diff.re, even_diff.im)};
    return {even_sum + odd_sum,
            {V::mul(c, V::sub(t1.re, t1.im)), V::mul(c, V::add(t1.re, t1.im))},
            {V::sub(odd_sum.im, even_sum.im), V::sub(even_sum.re, odd_sum.re)},
            {V::mul(c, V::sub(t3.im, t3.re)), V::mul(c, V::add(t3.im, t3.re))}};
  }
};

constexpr float kCosQuarterPi = round6(cos_turn(1, 8));

// First stage (cft1st), positions = 1: the lanes hold consecutive i, each with twiddles of its own.
// `Load` reads the complex input at an index, so that the stage serves interleaved samples and
// split arrays alike.
template <class V, int count, class Load>
void first_stage(const Load& load, const StageTwiddles<count>& tw, float* re, float* im) {
  static_assert(count % V::kWidth == 0, "rows fill whole registers");
  for (int i = 0; i < count; i += V::kWidth) {
    const Quad<V> q = Butterfly<V>::twiddled(
        load.template at<V>(i), load.template at<V>(i + count), load.template at<V>(i + 2 * count),
        load.template at<V>(i + 3 * count), load_complex<V>(tw.w1r + i, tw.w1i + i),
        load_complex<V>(tw.w2r + i, tw.w2i + i), load_complex<V>(tw.w3r + i, tw.w3i + i));
    V::store_columns(re + 4 * i, q.y0.re, q.y1.re, q.y2.re, q.y3.re);
    V::store_columns(im + 4 * i, q.y0.im, q.y1.im, q.y2.im, q.y3.im);
  }
  // The two entries that have a form of their own, computed again.
  using S = ScalarF32;
  auto redo = [&](int i, const Quad<S>& q) {
    S::store_columns(re + 4 * i, q.y0.re, q.y1.re, q.y2.re, q.y3.re);
    S::store_columns(im + 4 * i, q.y0.im, q.y1.im, q.y2.im, q.y3.im);
  };
  auto in = [&](int i) { return load.template at<S>(i); };
  constexpr int h = count / 2;
  redo(0, Butterfly<S>::plain(in(0), in(count), in(2 * count), in(3 * count)));
  redo(h, Butterfly<S>::half_way(in(h), in(h + count), in(h + 2 * count), in(h + 3 * count),
                                 kCosQuarterPi));
}

// Second stage (cftmdl), positions = 4: a register holds all four positions of kWidth/4 consecutive
// i.
template <class V, int count>
void second_stage(const float* xr, const float* xi, const StageTwiddles<count>& tw, float* yr,
                  float* yi) {
  constexpr int step = 4 * count;
  auto in = [&](auto v, int at) { return load_complex<decltype(v)>(xr + at, xi + at); };
  for (int f = 0; f < step; f += V::kWidth) {
    const int i = f / 4;
    const Quad<V> q = Butterfly<V>::twiddled(
        in(V{}, f), in(V{}, f + step), in(V{}, f + 2 * step), in(V{}, f + 3 * step),
        {V::load_repeat4(tw.w1r + i), V::load_repeat4(tw.w1i + i)},
        {V::load_repeat4(tw.w2r + i), V::load_repeat4(tw.w2i + i)},
        {V::load_repeat4(tw.w3r + i), V::load_repeat4(tw.w3i + i)});
    const int at = 16 * i + f % 4;
    V::store_quads(yr + at, q.y0.re, q.y1.re, q.y2.re, q.y3.re);
    V::store_quads(yi + at, q.y0.im, q.y1.im, q.y2.im, q.y3.im);
  }
  using S = ScalarF32;
  auto redo = [&](int at, const Quad<S>& q) {
    S::store_quads(yr + at, q.y0.re, q.y1.re, q.y2.re, q.y3.re);
    S::store_quads(yi + at, q.y0.im, q.y1.im, q.y2.im, q.y3.im);
  };
  for (int p = 0; p < 4; ++p) {
    const int h = step / 2 + p;
    redo(p, Butterfly<S>::plain(in(S{}, p), in(S{}, p + step), in(S{}, p + 2 * step),
                                in(S{}, p + 3 * step)));
    redo(4 * (step / 2) + p,
         Butterfly<S>::half_way(in(S{}, h), in(S{}, h + step), in(S{}, h + 2 * step),
                                in(S{}, h + 3 * step), kCosQuarterPi));
  }
}

// Later stages (cftmdl), positions >= 16: the lanes hold consecutive positions, which share their
// twiddles.
template <class V, int count, int positions>
void later_stage(const float* xr, const float* xi, const StageTwiddles<count>& tw, float* yr,
                 float* yi) {
  static_assert(positions % V::kWidth == 0, "positions fill whole registers");
  constexpr int step = count * positions;
  using C = ComplexReg<V>;
  auto row = [&](int i, auto butterfly) {
    const float* sr = xr + i * positions;
    const float* si = xi + i * positions;
    float* dr = yr + 4 * i * positions;
    float* di = yi + 4 * i * positions;
    for (int p = 0; p < positions; p += V::kWidth) {
      auto in = [&](int k) { return load_complex<V>(sr + k * step + p, si + k * step + p); };
      const Quad<V> q = butterfly(in(0), in(1), in(2), in(3));
      store_complex<V>(dr + p, di + p, q.y0);
      store_complex<V>(dr + positions + p, di + positions + p, q.y1);
      store_complex<V>(dr + 2 * positions + p, di + 2 * positions + p, q.y2);
      store_complex<V>(dr + 3 * positions + p, di + 3 * positions + p, q.y3);
    }
  };
  auto splat = [](float re, float im) { return C{V::splat(re), V::splat(im)}; };
  row(0, Butterfly<V>::plain);
  const typename V::Reg c = V::splat(kCosQuarterPi);
  row(count / 2, [c](C x0, C x1, C x2, C x3) { return Butterfly<V>::half_way(x0, x1, x2, x3, c); });
  for (int i = 1; i < count; ++i) {
    if (i == count / 2) continue;
    const C w1 = splat(tw.w1r[i], tw.w1i[i]), w2 = splat(tw.w2r[i], tw.w2i[i]),
            w3 = splat(tw.w3r[i], tw.w3i[i]);
    row(i,
        [=](C x0, C x1, C x2, C x3) { return Butterfly<V>::twiddled(x0, x1, x2, x3, w1, w2, w3); });
  }
}

template <int n>
struct RealFftTables {
  static constexpr int kPoints = n / 2;  // complex points
  StageTwiddles<kPoints / 4> stage1;
  StageTwiddles<kPoints / 16> stage2;
  StageTwiddles<kPoints / 64> stage3;
  StageTwiddles<kPoints / 256> stage4;  // n = 512 has no fourth stage
  RealTwiddles<n> real;
};

template <int n>
constexpr RealFftTables<n> kRealFftTables = {
    make_stage_twiddles<n / 8>(), make_stage_twiddles<n / 32>(), make_stage_twiddles<n / 128>(),
    make_stage_twiddles<n / 512>(), make_real_twiddles<n>()};

template <class V, int n>
struct RealFft {
  static_assert(n == 512 || n == 1024 || n == 2048, "lengths in use");
  static constexpr int kPoints = n / 2;
  using Split = SplitComplex<kPoints>;
  using C = ComplexReg<V>;

  struct InterleavedInput {
    const float* x;
    template <class W>
    ComplexReg<W> at(int i) const {
      return load_pairs<W>(x + 2 * i);
    }
  };

  struct SplitInput {
    const Split& x;
    template <class W>
    ComplexReg<W> at(int i) const {
      return load_complex<W>(x.re + i, x.im + i);
    }
  };

  // All stages but the last, through the two buffers in turn; returns the one that holds the
  // result. `in` may read from `b`, which is written only once the input has been consumed.
  template <class Input>
  static const Split& stages(const Input& in, Split& a, Split& b) {
    constexpr const RealFftTables<n>& t = kRealFftTables<n>;
    first_stage<V, kPoints / 4>(in, t.stage1, a.re, a.im);
    second_stage<V, kPoints / 16>(a.re, a.im, t.stage2, b.re, b.im);
    later_stage<V, kPoints / 64, 16>(b.re, b.im, t.stage3, a.re, a.im);
    if constexpr (n == 512) {
      return a;
    } else {
      later_stage<V, kPoints / 256, 64>(a.re, a.im, t.stage4, b.re, b.im);
      return b;
    }
  }

  // The last stage has no twiddles: radix 4 where the number of complex points is a power of four,
  // else radix 2. `emit(p, y)` receives output p of the positive-exponent transform.
  template <class Emit>
  static void last_stage(const Split& x, const Emit& emit) {
    auto in = [&](int at) { return load_complex<V>(x.re + at, x.im + at); };
    if constexpr (n == 1024) {
      constexpr int half = kPoints / 2;
      for (int p = 0; p < half; p += V::kWidth) {
        const C x0 = in(p), x1 = in(p + half);
        emit(p, x0 + x1);
        emit(p + half, x0 - x1);
      }
    } else {
      constexpr int quarter = kPoints / 4;
      for (int p = 0; p < quarter; p += V::kWidth) {
        const Quad<V> q =
            Butterfly<V>::plain(in(p), in(p + quarter), in(p + 2 * quarter), in(p + 3 * quarter));
        emit(p, q.y0);
        emit(p + quarter, q.y1);
        emit(p + 2 * quarter, q.y2);
        emit(p + 3 * quarter, q.y3);
      }
    }
  }

  // Runs body(k) on k .. k+kWidth-1 until it has covered 1 .. n/4-1. The last register overlaps the
  // one before, so `body` must read and write different arrays.
  template <class Body>
  static void for_bin_pairs(const Body& body) {
    constexpr int last = kPoints / 2 - V::kWidth;
    for (int k = 1; k < last; k += V::kWidth) body(k);
    body(last);
  }

  // The step between the complex spectrum z of n/2 points and the bins of the real frame. It is its
  // own mirror image up to signs, so the same lines serve both directions: x = z[k] -
  // conj(z[points-k]), y = w*x, z[k] - y and z[points-k] + conj(y).
  static void pair_step(int k, C& low, C& high) {
    constexpr const RealTwiddles<n>& w = kRealFftTables<n>.real;
    const C x = {V::sub(low.re, high.re), V::add(low.im, high.im)};
    const C y = load_complex<V>(w.wr + k, w.wi + k) * x;
    low = {V::sub(low.re, y.re), V::sub(y.im, low.im)};
    high = {V::add(high.re, y.re), V::sub(y.im, high.im)};
  }

  // n samples to n/2+1 interleaved bins of X[k] = sum x[j] e^(-2*pi*j*k/n), unscaled.
  static void forward(const float* samples, float* bins) {
    Split a, b;
    const Split& sorted = stages(InterleavedInput{samples}, a, b);
    Split& z = &sorted == &a ? b : a;
    last_stage(sorted, [&](int p, C y) { store_complex<V>(z.re + p, z.im + p, y); });

    // The stages computed positive exponents; pair_step() conjugates (rftfsub and the sign change
    // in one).
    bins[0] = z.re[0] + z.im[0];
    bins[1] = 0.0f;
    bins[n] = z.re[0] - z.im[0];
    bins[n + 1] = 0.0f;
    bins[kPoints] = z.re[kPoints / 2];
    bins[kPoints + 1] = -z.im[kPoints / 2];
    for_bin_pairs([&](int k) {
      const int mirror = kPoints - k - (V::kWidth - 1);
      C low = load_complex<V>(z.re + k, z.im + k);
      C high = {V::reverse(V::load(z.re + mirror)), V::reverse(V::load(z.im + mirror))};
      pair_step(k, low, high);
      store_pairs<V>(bins + 2 * k, low);
      store_pairs<V>(bins + 2 * mirror, {V::reverse(high.re), V::reverse(high.im)});
    });
  }

  // n/2+1 interleaved bins to n samples, scaled by 2/n: the exact inverse of forward(). The
  // imaginary parts of bins 0 and n/2 are not read.
  static void inverse(const float* bins, float* samples) {
    Split a, z;
    const float half_difference = 0.5f * (bins[0] - bins[n]);
    z.re[0] = bins[0] - half_difference;
    z.im[0] = -half_difference;
    z.re[kPoints / 2] = bins[kPoints];
    z.im[kPoints / 2] = bins[kPoints + 1];
    for_bin_pairs([&](int k) {  // rftbsub
      const int mirror = kPoints - k - (V::kWidth - 1);
      C low = load_pairs<V>(bins + 2 * k), high = load_pairs<V>(bins + 2 * mirror);
      high = {V::reverse(high.re), V::reverse(high.im)};
      pair_step(k, low, high);
      // pair_step() leaves y.im - z.im; the backward direction wants the opposite sign.
      const typename V::Reg zero = V::splat(0.0f);
      store_complex<V>(z.re + k, z.im + k, {low.re, V::sub(zero, low.im)});
      store_complex<V>(z.re + mirror, z.im + mirror,
                       {V::reverse(high.re), V::sub(zero, V::reverse(high.im))});
    });
    const Split& sorted = stages(SplitInput{z}, a, z);
    // cftbsub: the conjugate of the positive-exponent transform, interleaved back into samples.
    const typename V::Reg scale = V::splat(2.0f / n), minus_scale = V::splat(-2.0f / n);
    last_stage(sorted, [&](int p, C y) {
      V::store_pairs(samples + 2 * p, V::mul(y.re, scale), V::mul(y.im, minus_scale));
    });
  }
};

}  // namespace
}  // namespace quibo
