// The canceller's loops over the frequency bins, one body for every instruction set. One call
// handles all 1025 bins.
#pragma once

#include "aec/Laec.h"
#include "dsp/complex_reg.h"
#include "dsp/simd_scalar.h"

namespace quibo {
namespace {

constexpr float kLaecPowerFloor = 1e-7f;  // keeps the gain's divisions finite in silence

// A body for whole registers, then one lane for the last bin (1025 = 64 * 16 + 1).
template <class V, class Body>
void for_laec_bins(const Body& body) {
  for (int k = 0; k < LAEC_BINS - 1; k += V::kWidth) body(V{}, k);
  body(ScalarF32{}, LAEC_BINS - 1);
}

template <class V>
ComplexReg<V> load_bins(const laec_complex_t* spectrum, int k) {
  return load_pairs<V>(&spectrum[k].real);
}

template <class V>
void store_bins(laec_complex_t* spectrum, int k, ComplexReg<V> value) {
  store_pairs<V>(&spectrum[k].real, value);
}

// Y = X[0] W[0] + X[1] W[1] + X[2] W[2] into `fftdata`.
template <class V>
void laec_estimate_echo(LAEC* st) {
  for_laec_bins<V>([st](auto v, int k) {
    using B = decltype(v);
    ComplexReg<B> y = load_bins<B>(st->xk[0], k) * load_bins<B>(st->wk[0], k);
    for (int p = 1; p < LAEC_PARTITIONS; ++p) {
      y = y + load_bins<B>(st->xk[p], k) * load_bins<B>(st->wk[p], k);
    }
    store_bins<B>(st->fftdata, k, y);
  });
}

// Smoothed reference power and the normalised-LMS update W[p] += conj(X[p]) (mu E / power). Only
// the newest partition has the per-bin step; the older ones always adapt at muMax, normalised by
// the newest partition's power.
template <class V>
void laec_adapt(LAEC* st) {
  for_laec_bins<V>([st](auto v, int k) {
    using B = decltype(v);
    const typename B::Reg gamma = B::splat(st->gamma), rest = B::splat(1.0f - st->gamma);
    const typename B::Reg power =
        B::add(B::mul(gamma, B::load(st->pmk + k)),
               B::mul(rest, squared_magnitude(load_bins<B>(st->xk[0], k))));
    B::store(st->pmk + k, power);
    const typename B::Reg divisor = B::add(power, B::splat(st->delta));
    const ComplexReg<B> e = load_bins<B>(st->fftdata, k);
    auto scaled_error = [&](typename B::Reg mu) {
      const typename B::Reg m = B::div(mu, divisor);
      return ComplexReg<B>{B::mul(m, e.re), B::mul(m, e.im)};
    };
    auto update = [&](int p, ComplexReg<B> step) {
      store_bins<B>(st->wk[p], k,
                    load_bins<B>(st->wk[p], k) + conj_times(load_bins<B>(st->xk[p], k), step));
    };
    update(0, scaled_error(B::load(st->muk + k)));
    const ComplexReg<B> full_step = scaled_error(B::splat(st->muMax));
    for (int p = 1; p < LAEC_PARTITIONS; ++p) update(p, full_step);
  });
}

// Misadjustment estimate, residual-echo gain H = 1 - g |X|^2 / |E|^2 and the next step size 1 - H.
// The driving term divides the error's magnitude, not its power, by the reference power: the
// constants were tuned to that. The limits are two comparisons, lower bound first, so a NaN passes
// through.
template <class V>
void laec_update_gain(LAEC* st) {
  for_laec_bins<V>([st](auto v, int k) {
    using B = decltype(v);
    const typename B::Reg one = B::splat(1.0f), floor = B::splat(kLaecPowerFloor);
    const typename B::Reg mu = B::load(st->muk + k);
    const typename B::Reg x2 = squared_magnitude(load_bins<B>(st->xk[0], k));
    const typename B::Reg e2 = squared_magnitude(load_bins<B>(st->fftdata, k));
    const typename B::Reg w2 = squared_magnitude(load_bins<B>(st->wk[0], k));
    const typename B::Reg drive = B::mul(B::mul(mu, mu), B::div(B::sqrt(e2), B::add(x2, floor)));
    const typename B::Reg kept =
        B::mul(B::sub(one, B::mul(B::splat(2.0f), mu)), B::load(st->gk + k));
    const typename B::Reg g = B::add(B::add(kept, drive), B::mul(B::splat(st->pconst), w2));
    B::store(st->gk + k, g);
    typename B::Reg h = B::sub(one, B::div(B::mul(g, x2), B::add(e2, floor)));
    h = B::larger(B::splat(st->pfMin), h);
    h = B::smaller(B::splat(st->pfMax), h);
    store_bins<B>(st->hk, k, {h, B::splat(0.0f)});
    typename B::Reg next_mu = B::sub(one, h);
    next_mu = B::larger(B::splat(st->muMin), next_mu);
    next_mu = B::smaller(B::splat(st->muMax), next_mu);
    B::store(st->muk + k, next_mu);
  });
}

// The error spectrum through the gain filter: `fftdata` = E H.
template <class V>
void laec_apply_gain(LAEC* st) {
  for_laec_bins<V>([st](auto v, int k) {
    using B = decltype(v);
    store_bins<B>(st->fftdata, k, load_bins<B>(st->fftdata, k) * load_bins<B>(st->hk, k));
  });
}

// Sum of squares in four lanes, in the order of the networks' products. Never fused: decisions hang
// on it, which are to be the same in every family of kernels.
template <class V>
float laec_energy(const float* x, int len) {
  using F = typename V::Four;
  typename F::Reg sum = F::splat(0.0f);
#pragma GCC unroll 4
  for (int j = 0; j < len; j += 4) {
    const typename F::Reg a = F::load(x + j);
    sum = F::add(sum, F::mul(a, a));
  }
  return F::fold(sum);
}

}  // namespace
}  // namespace quibo
