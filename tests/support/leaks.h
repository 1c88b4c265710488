// Memory that the library leaves allocated on purpose, told to the leak checker.
#pragma once

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

namespace quibo_test {

// What is allocated while it lives may leak.
class DeliberateLeaks {
 public:
#ifdef __SANITIZE_ADDRESS__
  DeliberateLeaks() {
    __lsan_disable();
  }
  ~DeliberateLeaks() {
    __lsan_enable();
  }
#else
  DeliberateLeaks() {}
  ~DeliberateLeaks() {}
#endif
  DeliberateLeaks(const DeliberateLeaks&) = delete;
  DeliberateLeaks& operator=(const DeliberateLeaks&) = delete;
};

}  // namespace quibo_test
