#include "support/allocation.h"

#include <stddef.h>

#include <set>

namespace {

bool counting = false;
int allocations = 0;
int to_fail = -1;

bool tracking = false;
std::set<void*> held;

bool fails() {
  return counting && allocations++ == to_fail;
}

void* track(void* block) {
  if (tracking && block) held.insert(block);
  return block;
}

}  // namespace

extern "C" {

void* __real_malloc(size_t size);
void* __real_calloc(size_t count, size_t size);
void __real_free(void* block);

void* __wrap_malloc(size_t size) {
  return fails() ? nullptr : track(__real_malloc(size));
}

void* __wrap_calloc(size_t count, size_t size) {
  return fails() ? nullptr : track(__real_calloc(count, size));
}

void __wrap_free(void* block) {
  if (tracking) held.erase(block);
  __real_free(block);
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

HeldMemory::HeldMemory() {
  tracking = true;
}

HeldMemory::~HeldMemory() {
  tracking = false;
  for (void* block : held) __real_free(block);
  held.clear();
}

int HeldMemory::blocks() const {
  return static_cast<int>(held.size());
}

}  // namespace quibo_test
