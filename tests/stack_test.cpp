// The stack that calls take, against what quibo.h promises.

#include <gtest/gtest.h>
#include <ucontext.h>

#include <functional>
#include <string>
#include <vector>

#include "aec/Laec.h"
#include "quibo/quibo.h"
#include "support/variants.h"

namespace {

constexpr size_t kStack = 1 << 20, kPromised = 40 << 10;
constexpr uint8_t kPaint = 0xA5;

std::function<void()> body;
ucontext_t caller;

void run_body() {
  body();
}

// Bytes that `work` takes of a painted stack of its own.
size_t stack_of(const std::function<void()>& work) {
  std::vector<uint8_t> stack(kStack, kPaint);
  ucontext_t callee;
  getcontext(&callee);
  callee.uc_stack.ss_sp = stack.data();
  callee.uc_stack.ss_size = stack.size();
  callee.uc_link = &caller;
  body = work;
  makecontext(&callee, run_body, 0);
  swapcontext(&caller, &callee);
  size_t untouched = 0;
  while (untouched < stack.size() && stack[untouched] == kPaint) ++untouched;
  return stack.size() - untouched;
}

TEST(Stack, NoCallTakesMoreThan40KiB) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer has its own stack frames";
#endif
  static int16_t mics[3][QUIBO_FRAME], ref[QUIBO_FRAME], outs[3][QUIBO_FRAME], naec[QUIBO_FRAME];
  static LAEC canceller;
  static float residual[LAEC_SHIFT];
  init_laec(&canceller);
  KTWakeup h = nullptr;
  int32_t wake;
  struct Call {
    const char* name;
    std::function<void()> work;
  };
  const Call calls[] = {
      {"Quibo_wakeup_init", [&] { Quibo_wakeup_init(&h, 0); }},
      {"Quibo_wakeup_three_write_data",
       [&] {
         Quibo_wakeup_three_write_data(h, mics[0], mics[1], mics[2], ref, outs[0], outs[1], outs[2],
                                       naec);
       }},
      {"Quibo_doa_three_write_data",
       [&] { Quibo_doa_three_write_data(h, &wake, outs[0], outs[1], outs[2], naec, QUIBO_FRAME); }},
      {"linear_aec_post", [&] { linear_aec_post(&canceller, residual); }},
      {"Quibo_wakeup_unit",
       [&] {
         Quibo_wakeup_unit(h);
         h = nullptr;
       }},
  };
  quibo_test::for_each_variant([&](const std::string& variant) {
    for (const Call& call : calls) {
      const size_t bytes = stack_of(call.work);
      EXPECT_LE(bytes, kPromised) << call.name << ", " << variant;
      RecordProperty(variant + " " + call.name, static_cast<int>(bytes));
    }
  });
}

}  // namespace
