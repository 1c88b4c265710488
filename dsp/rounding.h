// Rounding to the nearest whole number, halves away from zero, without a call to roundf().
#pragma once

namespace quibo {

// The float just below 0.5. Adding it, with the sign of x, and truncating gives what roundf(x)
// gives for every float below 2^31; adding 0.5 itself would take 0.49999997 to 1.
constexpr float kBelowHalf = 0.49999997f;

}  // namespace quibo
