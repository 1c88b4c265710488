// What the bindings share: turns at the library, loops over frames, arrays.
#pragma once

#include <nanobind/nanobind.h>
#include <nanobind/ndarray.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <optional>

#include "quibo/quibo.h"

namespace quibo::python {

namespace nb = nanobind;

template <class T, int kDims>
using Input = nb::ndarray<const T, nb::ndim<kDims>, nb::c_contig, nb::device::cpu>;
template <class T>
using Vector = nb::ndarray<nb::numpy, T, nb::ndim<1>>;
template <class T>
using Matrix = nb::ndarray<nb::numpy, T, nb::ndim<2>>;

// Memory of a new array, handed to Python when the work is done.
template <class T>
class Output {
 public:
  explicit Output(size_t rows, size_t columns)
      : rows_(rows), columns_(columns), data_(new T[rows * columns]) {}
  T* row(size_t i) { return data_.get() + i * columns_; }
  Vector<T> vector() { return given<Vector<T>>({columns_}); }
  Matrix<T> matrix() { return given<Matrix<T>>({rows_, columns_}); }

 private:
  template <class Array>
  Array given(std::initializer_list<size_t> shape) {
    const nb::capsule owner(data_.get(), [](void* p) noexcept { delete[] static_cast<T*>(p); });
    return Array(data_.release(), shape, owner);
  }

  size_t rows_, columns_;
  std::unique_ptr<T[]> data_;
};

// The library locks nothing and its modules share scratch. Held for one frame or block at a time,
// so that threads take turns and a fork never waits long.
std::mutex& turn();

// step(k) for every k < count, without the GIL. Ctrl-C is seen now and then.
template <class Step>
void for_each(size_t count, Step step) {
  constexpr size_t kInterruptible = 64;
  const nb::gil_scoped_release released;
  for (size_t k = 0; k < count; ++k) {
    {
      const std::lock_guard<std::mutex> mine(turn());
      step(k);
    }
    if ((k + 1) % kInterruptible == 0) {
      const nb::gil_scoped_acquire held;
      if (PyErr_CheckSignals() != 0) throw nb::python_error();
    }
  }
}

// The one place in a process for what owns the echo suppressor's recurrent states: a front end or
// an echo suppressor. Throws when it is taken. A fork copies the owner together with the library's
// state, and the copy is of no use there.
class OnlyOne {
 public:
  OnlyOne();
  ~OnlyOne();
  OnlyOne(const OnlyOne&) = delete;
  OnlyOne& operator=(const OnlyOne&) = delete;
  bool here() const { return pid_ == getpid(); }
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = getpid();
};

void require_open(const std::optional<OnlyOne>& owner);

void bind_front_end(nb::module_& m);
void bind_modules(nb::module_& m);
// Nothing is bound in a build without the libraries for files.
void bind_recordings(nb::module_& m);

}  // namespace quibo::python
