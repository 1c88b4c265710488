// How times and wakes are written for people.
#pragma once

#include <string>

#include "front_end.h"

namespace quibo::command {

// "1:02.50"
std::string clock_time(double seconds, int decimals = 2);

// "wake 1 at 0:09.41  309 deg (length 0.89)  cost 0.60 of 1.20  said 0:08.08 - 0:09.36"
std::string wake_line(int number, const recordings::Wake& wake);

}  // namespace quibo::command
