// Exponential, logarithm and arc tangent of this library's own. The C library's differ in the last
// bit from platform to platform, and ours must not: these are IEEE operations in double precision,
// rounded to float once (atan is not rounded). Their value is the correctly rounded one but for
// about one argument in a million, where it is the float next to it.
#pragma once

#include <stdint.h>

namespace quibo::elementary {

float exp(float x);    // e^x; 0 and infinity beyond the range of floats
float exp10(float x);  // 10^x, likewise
float log(float x);    // natural; of 0 -infinity, of a negative number NaN
float log10(float x);
double atan(double x);  // radians; within 5e-16

// 2^n for any n; 0 and infinity beyond the range of floats.
float power_of_two(int64_t n);

}  // namespace quibo::elementary
