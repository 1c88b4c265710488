// Running a piece of code once per instruction set that this machine offers.
#pragma once

#include <string>

#include "dsp/kernels.h"

namespace quibo_test {

// Calls body(name) with each variant in use, the scalar one first, and restores the choice.
template <class Body>
void for_each_variant(const Body& body) {
  const char* before = quibo::kernels().name;
  for (int i = 0; const quibo::Kernels* k = quibo::available_kernels(i); ++i) {
    quibo::use_kernels(k->name);
    body(std::string(k->name));
  }
  quibo::use_kernels(before);
}

}  // namespace quibo_test
