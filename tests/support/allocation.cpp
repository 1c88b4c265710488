#include "support/allocation.h"

#include <stddef.h>

namespace {

bool counting = false;
int allocations = 0;
int to_fail = -1;

bool fails() {
  return counting && allocations++ == to_fail;
}

}  // namespace

extern "C" {

void* __real_malloc(size_t size);
void* __real_calloc(size_t count, size_t size);

void* __wrap_malloc(size_t size) {
  return fails() ? nullptr : __real_malloc(size);
}

void* __wrap_calloc(size_t count, size_t size) {
  return fails() ? nullptr : __real_calloc(count, size);
}

}  // extern "C"

namespace quibo_test {

FailAllocation::FailAllocation(int n) {
  to_fail = n;
  allocations = 0;
  counting = true;
}

FailAllocation::~FailAllocation() {
  counting = false;
}

int FailAllocation::count() const {
  return allocations;
}

}  // namespace quibo_test
