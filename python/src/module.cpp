// The extension module quibo._quibo: the library for whole frames. What a user sees, with its checks
// and chunks of any size, is Python (python/quibo).
#include "engine.h"

// The library says on standard output what it starts. In a Python process that is the
// application's, so the linker leads the library's calls here (-Wl,--wrap).
extern "C" {
int __wrap_printf(const char*, ...) {
  return 0;
}
int __wrap_puts(const char*) {
  return 0;
}
}

NB_MODULE(_quibo, m) {
  using namespace quibo::python;
  m.attr("FRAME") = static_cast<int>(QUIBO_FRAME);
  m.attr("BLOCK") = static_cast<int>(QUIBO_BLOCK);
  m.attr("RATE") = static_cast<int>(QUIBO_SAMPLE_RATE);
  bind_front_end(m);
  bind_modules(m);
  bind_recordings(m);
}
