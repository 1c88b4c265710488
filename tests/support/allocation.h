// Failing and tracking allocations: malloc, calloc and free of the library under test go through
// here (linker option --wrap).
#pragma once

namespace quibo_test {

// While alive, the n-th allocation (counted from 0) and no other returns null.
class FailAllocation {
 public:
  explicit FailAllocation(int n);
  ~FailAllocation();
  FailAllocation(const FailAllocation&) = delete;
  FailAllocation& operator=(const FailAllocation&) = delete;

  // Allocations asked for so far. No more than n means that none was failed.
  int count() const;
};

// Knows the blocks allocated during its life that are still held, and frees them at its end: failed
// creations leave memory behind on purpose.
class HeldMemory {
 public:
  HeldMemory();
  ~HeldMemory();
  HeldMemory(const HeldMemory&) = delete;
  HeldMemory& operator=(const HeldMemory&) = delete;

  int blocks() const;
};

}  // namespace quibo_test
