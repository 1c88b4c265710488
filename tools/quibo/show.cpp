#include "show.h"

#include <cmath>
#include <cstdio>

namespace quibo::command {

std::string clock_time(double seconds, int decimals) {
  const double scale = std::pow(10.0, decimals);
  seconds = std::round(seconds * scale) / scale;  // first, so that there is no second 60
  const int minutes = static_cast<int>(seconds / 60);
  char text[48];
  snprintf(text, sizeof text, "%d:%0*.*f", minutes, decimals ? 3 + decimals : 2, decimals,
           seconds - 60 * minutes);
  return text;
}

std::string wake_line(int number, const recordings::Wake& wake) {
  char angle[32] = "no angle";
  if (wake.angle >= 0) {
    snprintf(angle, sizeof angle, "%3d deg (length %.2f)", wake.angle,
             static_cast<double>(wake.angle_length));
  }
  char text[160];
  snprintf(text, sizeof text, "wake %d at %s  %s  cost %.2f of %.2f  said %s - %s", number,
           clock_time(static_cast<double>(wake.sample) / QUIBO_SAMPLE_RATE).c_str(), angle,
           static_cast<double>(wake.cost), static_cast<double>(wake.threshold),
           clock_time(wake.start).c_str(), clock_time(wake.end).c_str());
  return text;
}

}  // namespace quibo::command
