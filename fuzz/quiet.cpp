// The library's lines on standard output, many thousand a second, go nowhere; the fuzzer's own are
// on standard error.

#include <stdio.h>

#include "fuzz/input.h"

int LLVMFuzzerInitialize(int*, char***) {
  quibo_fuzz::require(freopen("/dev/null", "w", stdout) != nullptr);
  return 0;
}
