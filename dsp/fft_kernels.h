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

// The first two stages hold several butterflies of different twiddles in one register, and two of
// them have a form of their own: the first one and the one half-way. Runs body(i, butterfly) on
// i = 0, kWidth, ... below `length`, with a butterfly that gives entries 0 .. lanes-1 and
// length/2 .. length/2+lanes-1 their special forms.
template <class V, int lanes, int length, class Body>
void for_mixed_butterflies(const Body& body) {
  static_assert(length / 2 % V::kWidth == 0, "the half-way entry starts a register");
  using C = ComplexReg<V>;
  auto mix = [](const Quad<V>& special, const Quad<V>& general) {
    auto lead = [](C a, C b) {
      return C{V::template lead<lanes>(a.re, b.re), V::template lead<lanes>(a.im, b.im)};
    };
    return Quad<V>{lead(special.y0, general.y0), lead(special.y1, general.y1),
                   lead(special.y2, general.y2), lead(special.y3, general.y3)};
  };
  auto first = [&](C x0, C x1, C x2, C x3, C w1, C w2, C w3) {
    return mix(Butterfly<V>::plain(x0, x1, x2, x3),
               Butterfly<V>::twiddled(x0, x1, x2, x3, w1, w2, w3));
  };
  auto half_way = [&](C x0, C x1, C x2, C x3, C w1, C w2, C w3) {
    return mix(Butterfly<V>::half_way(x0, x1, x2, x3, V::splat(kCosQuarterPi)),
               Butterfly<V>::twiddled(x0, x1, x2, x3, w1, w2, w3));
  };
  auto half = [&](int begin, auto special) {
    int i = begin;
    for (; i < begin + lanes; i += V::kWidth) body(i, special);
    for (; i < begin + length / 2; i += V::kWidth) body(i, Butterfly<V>::twiddled);
  };
  half(0, first);
  half(length / 2, half_way);
}

// First stage (cft1st), positions = 1: the lanes hold consecutive i, each with twiddles of its own.
// load(i) reads the complex input, interleaved samples or split arrays.
template <class V, int count, class Load>
[[gnu::flatten]] void first_stage(const Load& load, const StageTwiddles<count>& tw, float* re,
                                  float* im) {
  for_mixed_butterflies<V, 1, count>([&](int i, auto butterfly) {
    const Quad<V> q =
        butterfly(load(i), load(i + count), load(i + 2 * count), load(i + 3 * count),
                  load_complex<V>(tw.w1r + i, tw.w1i + i), load_complex<V>(tw.w2r + i, tw.w2i + i),
                  load_complex<V>(tw.w3r + i, tw.w3i + i));
    V::store_columns(re + 4 * i, q.y0.re, q.y1.re, q.y2.re, q.y3.re);
    V::store_columns(im + 4 * i, q.y0.im, q.y1.im, q.y2.im, q.y3.im);
  });
}

// Second stage (cftmdl), positions = 4: a register holds all four positions of kWidth/4 consecutive
// i.
template <class V, int count>
[[gnu::flatten]] void second_stage(const float* xr, const float* xi, const StageTwiddles<count>& tw,
                                   float* yr, float* yi) {
  constexpr int step = 4 * count;
  auto in = [&](int at) { return load_complex<V>(xr + at, xi + at); };
  for_mixed_butterflies<V, 4, step>([&](int f, auto butterfly) {
    const int i = f / 4;
    const Quad<V> q = butterfly(in(f), in(f + step), in(f + 2 * step), in(f + 3 * step),
                                {V::load_repeat4(tw.w1r + i), V::load_repeat4(tw.w1i + i)},
                                {V::load_repeat4(tw.w2r + i), V::load_repeat4(tw.w2i + i)},
                                {V::load_repeat4(tw.w3r + i), V::load_repeat4(tw.w3i + i)});
    const int at = 16 * i + f % 4;
    V::store_quads(yr + at, q.y0.re, q.y1.re, q.y2.re, q.y3.re);
    V::store_quads(yi + at, q.y0.im, q.y1.im, q.y2.im, q.y3.im);
  });
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

  // All stages but the last, through the two buffers in turn; returns the one that holds the
  // result. `load` may read from `b`, which is written only once the input has been consumed.
  template <class Load>
  static const Split& stages(const Load& load, Split& a, Split& b) {
    constexpr const RealFftTables<n>& t = kRealFftTables<n>;
    first_stage<V, kPoints / 4>(load, t.stage1, a.re, a.im);
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
  // else radix 2. Output r of the butterfly at p is output r*kPart + p of the transform.
  static constexpr int kRadix = n == 1024 ? 2 : 4;
  static constexpr int kPart = kPoints / kRadix;
  struct Outputs {
    C y[kRadix];
  };

  static Outputs last_butterfly(const Split& x, int p) {
    auto in = [&](int r) { return load_complex<V>(x.re + r * kPart + p, x.im + r * kPart + p); };
    if constexpr (kRadix == 2) {
      return {{in(0) + in(1), in(0) - in(1)}};
    } else {
      const Quad<V> q = Butterfly<V>::plain(in(0), in(1), in(2), in(3));
      return {{q.y0, q.y1, q.y2, q.y3}};
    }
  }

  // Runs body(k) on k .. k+kWidth-1 until it has covered 1 .. count. The last register overlaps the
  // one before, so `body` must read and write different arrays.
  template <int count, class Body>
  static void for_registers(const Body& body) {
    constexpr int last = count + 1 - V::kWidth;
    for (int k = 1; k < last; k += V::kWidth) body(k);
    body(last);
  }

  // The step between the complex spectrum z of n/2 points and the bins of the real frame. It is its
  // own mirror image up to signs, so the same lines serve both directions: x = z[k] -
  // conj(z[points-k]), y = w*x, z[k] - y and z[points-k] + conj(y). `high` holds its lanes in
  // reverse.
  static void pair_step(int k, C& low, C& high) {
    constexpr const RealTwiddles<n>& w = kRealFftTables<n>.real;
    const C x = {V::sub(low.re, high.re), V::add(low.im, high.im)};
    const C y = load_complex<V>(w.wr + k, w.wi + k) * x;
    low = {V::sub(low.re, y.re), V::sub(y.im, low.im)};
    high = {V::add(high.re, y.re), V::sub(y.im, high.im)};
  }

  // Where the mirror image of k .. k+kWidth-1 among `count` begins.
  static constexpr int mirror(int count, int k) { return count - k - (V::kWidth - 1); }

  static C reverse(C x) { return {V::reverse(x.re), V::reverse(x.im)}; }

  // Bins k and their mirror images from the outputs of the last stage (rftfsub). The stages
  // computed positive exponents; pair_step() conjugates.
  static void store_bins(float* bins, int k, C low, C high) {
    high = reverse(high);
    pair_step(k, low, high);
    store_pairs<V>(bins + 2 * k, low);
    store_pairs<V>(bins + 2 * mirror(kPoints, k), reverse(high));
  }

  // n samples to n/2+1 interleaved bins of X[k] = sum x[j] e^(-2*pi*j*k/n), unscaled.
  static void forward(const float* samples, float* bins) {
    Split a, b;
    const Split& sorted = stages([&](int i) { return load_pairs<V>(samples + 2 * i); }, a, b);
    // The outputs of two butterflies that lie opposite each other are the images of one another.
    for_registers<kPart / 2>([&](int p) {
      const int opposite = mirror(kPart, p);
      const Outputs here = last_butterfly(sorted, p), there = last_butterfly(sorted, opposite);
      for (int r = 0; r < kRadix / 2; ++r) {
        store_bins(bins, r * kPart + p, here.y[r], there.y[kRadix - 1 - r]);
        store_bins(bins, r * kPart + opposite, there.y[r], here.y[kRadix - 1 - r]);
      }
    });
    // The first butterfly lies opposite itself.
    using Scalar = RealFft<ScalarF32, n>;
    const auto first = Scalar::last_butterfly(sorted, 0);
    bins[0] = first.y[0].re + first.y[0].im;
    bins[1] = 0.0f;
    bins[n] = first.y[0].re - first.y[0].im;
    bins[n + 1] = 0.0f;
    bins[kPoints] = first.y[kRadix / 2].re;
    bins[kPoints + 1] = -first.y[kRadix / 2].im;
    if constexpr (kRadix == 4) Scalar::store_bins(bins, kPart, first.y[1], first.y[3]);
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
    for_registers<kPoints / 2 - 1>([&](int k) {  // rftbsub
      const int image = mirror(kPoints, k);
      C low = load_pairs<V>(bins + 2 * k), high = reverse(load_pairs<V>(bins + 2 * image));
      pair_step(k, low, high);
      // pair_step() leaves y.im - z.im; the backward direction wants the opposite sign.
      const typename V::Reg zero = V::splat(0.0f);
      store_complex<V>(z.re + k, z.im + k, {low.re, V::sub(zero, low.im)});
      store_complex<V>(z.re + image, z.im + image, reverse({high.re, V::sub(zero, high.im)}));
    });
    const Split& sorted = stages([&](int i) { return load_complex<V>(z.re + i, z.im + i); }, a, z);
    // cftbsub: the conjugate of the positive-exponent transform, interleaved back into samples.
    const typename V::Reg scale = V::splat(2.0f / n), minus_scale = V::splat(-2.0f / n);
    for (int p = 0; p < kPart; p += V::kWidth) {
      const Outputs out = last_butterfly(sorted, p);
      for (int r = 0; r < kRadix; ++r) {
        V::store_pairs(samples + 2 * (r * kPart + p), V::mul(out.y[r].re, scale),
                       V::mul(out.y[r].im, minus_scale));
      }
    }
  }
};

}  // namespace
}  // namespace quibo
