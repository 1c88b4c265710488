// Memory of the modules: zero-filled records from the C allocator, and copies of arrays. Kernels do
// not include this: see simd_scalar.h on functions outside an anonymous namespace.
#pragma once

#include <stdlib.h>
#include <string.h>

namespace quibo {

// `count` zero-filled records, or null.
template <class Record>
Record* allocate(int count = 1) {
  return static_cast<Record*>(calloc(static_cast<size_t>(count), sizeof(Record)));
}

// Copies `count` values; the arrays must not overlap.
template <class Value>
void copy(Value* to, const Value* from, int count) {
  memcpy(to, from, static_cast<size_t>(count) * sizeof(Value));
}

}  // namespace quibo
