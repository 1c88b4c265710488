// Complex arithmetic on registers of real and imaginary parts, for the bodies that run on every
// instruction set. Products are the plain four multiplications and two additions, in the order
// written here.
#pragma once

namespace quibo {
namespace {

template <class V>
struct ComplexReg {
  typename V::Reg re, im;
};

template <class V>
ComplexReg<V> operator+(ComplexReg<V> a, ComplexReg<V> b) {
  return {V::add(a.re, b.re), V::add(a.im, b.im)};
}

template <class V>
ComplexReg<V> operator-(ComplexReg<V> a, ComplexReg<V> b) {
  return {V::sub(a.re, b.re), V::sub(a.im, b.im)};
}

template <class V>
ComplexReg<V> operator*(ComplexReg<V> w, ComplexReg<V> x) {
  return {V::sub(V::mul(w.re, x.re), V::mul(w.im, x.im)),
          V::add(V::mul(w.re, x.im), V::mul(w.im, x.re))};
}

// a + j*b and a - j*b
template <class V>
ComplexReg<V> add_turned(ComplexReg<V> a, ComplexReg<V> b) {
  return {V::sub(a.re, b.im), V::add(a.im, b.re)};
}

template <class V>
ComplexReg<V> sub_turned(ComplexReg<V> a, ComplexReg<V> b) {
  return {V::add(a.re, b.im), V::sub(a.im, b.re)};
}

// conj(a) * b
template <class V>
ComplexReg<V> conj_times(ComplexReg<V> a, ComplexReg<V> b) {
  return {V::add(V::mul(a.re, b.re), V::mul(a.im, b.im)),
          V::sub(V::mul(a.re, b.im), V::mul(a.im, b.re))};
}

template <class V>
typename V::Reg squared_magnitude(ComplexReg<V> a) {
  return V::add(V::mul(a.re, a.re), V::mul(a.im, a.im));
}

// Split storage: real and imaginary parts in two arrays.
template <class V>
ComplexReg<V> load_complex(const float* re, const float* im) {
  return {V::load(re), V::load(im)};
}

template <class V>
void store_complex(float* re, float* im, ComplexReg<V> y) {
  V::store(re, y.re);
  V::store(im, y.im);
}

// Interleaved storage: (real, imaginary) pairs.
template <class V>
ComplexReg<V> load_pairs(const float* pairs) {
  ComplexReg<V> v;
  V::load_pairs(pairs, v.re, v.im);
  return v;
}

template <class V>
void store_pairs(float* pairs, ComplexReg<V> y) {
  V::store_pairs(pairs, y.re, y.im);
}

}  // namespace
}  // namespace quibo
