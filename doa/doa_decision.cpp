#include "doa/doa_decision.h"

#include <math.h>
#include <stddef.h>
#include <string.h>

#include "doa/doa_network.h"
#include "dsp/convert.h"
#include "dsp/elementary.h"

namespace {

constexpr float kAxisGuard = 1e-6f;  // keeps y = 0 from dividing by zero
constexpr double kPi = 3.1415925f;   // single precision, kept: half degrees round by it
constexpr int kDecisionBlocks = 15;  // 450 ms: about the wake phrase
constexpr float kEmptyRow[4] = {0.0f, 0.0f, 0.0f, -1.0f};

// atan(x / y) in degrees, -90 .. 90.
float half_plane_angle(float x, float y) {
  const float ratio = x / (y + kAxisGuard);
  return static_cast<float>(quibo::elementary::atan(ratio) / kPi * 180);
}

bool behind(float x, float y) {
  return x != 0.0f && y < 0.0f;
}

bool front_left(float x, float y) {
  return x < 0.0f && y > 0.0f;
}

// Row of the longest vector among the last 15 blocks, the earliest of equals; -1 when none has a
// length above 0. A row that is not a number fails the comparison and is passed over.
int longest_row(const LAYER_DATA_DOA* dlayer) {
  float best = 0.0f;
  int index = -1;
  for (int row = DOA_WINDOW - kDecisionBlocks; row < DOA_WINDOW; ++row) {
    const float length = dlayer->doa_win_buff[row][2];
    if (length > best) {
      best = length;
      index = row;
    }
  }
  return index;
}

}  // namespace

float change_xy_to_angle(float x, float y) {
  const float angle = half_plane_angle(x, y);
  if (behind(x, y)) return angle + 180.0f;
  return front_left(x, y) ? angle + 360.0f : angle;
}

void add_to_doa_win_buff(LAYER_DATA_DOA* dlayer, float x, float y, float angle) {
  float(*window)[4] = dlayer->doa_win_buff;
  memmove(window[0], window[1], (DOA_WINDOW - 1) * sizeof window[0]);
  float* row = window[DOA_WINDOW - 1];
  row[0] = x;
  row[1] = y;
  row[2] = sqrtf(x * x + y * y);
  row[3] = angle;
}

int32_t doa_decision(DoaNet* doanet) {
  LAYER_DATA_DOA* dlayer = doanet->dlayer;
  // Without a vector of any length the two floats in front of the window stand in for one: the end
  // of out2, which nothing writes, so that the angle is 0.
  static_assert(offsetof(LAYER_DATA_DOA, doa_win_buff) ==
                    offsetof(LAYER_DATA_DOA, out2) + sizeof dlayer->out2,
                "out2 ends where the window begins");
  const int index = longest_row(dlayer);
  const float* vector = index >= 0 ? dlayer->doa_win_buff[index] : dlayer->out2 + DOA_LAYER_OUT - 2;
  memcpy(dlayer->decided, vector, sizeof dlayer->decided);
  // Rounded to whole degrees by adding a half and truncating, so -90 (x < 0, y = 0) gives -89. An
  // angle that is not a number (x = 0, y = -1e-6) gives 0.
  const int32_t degrees = quibo::truncate_to_int32(change_xy_to_angle(vector[0], vector[1]) + 0.5f);
  for (float(&row)[4] : dlayer->doa_win_buff) memcpy(row, kEmptyRow, sizeof row);
  return degrees;
}

int32_t proc_one_frame(DoaNet* doanet, const int16_t* mic1, const int16_t* mic2,
                       const int16_t* mic3, int32_t rcg_ret) {
  doa_model_forward(doanet, mic1, mic2, mic3);
  LAYER_DATA_DOA* dlayer = doanet->dlayer;
  const float x = dlayer->xy[0], y = dlayer->xy[1];
  add_to_doa_win_buff(dlayer, x, y, change_xy_to_angle(x, y));
  return rcg_ret ? doa_decision(doanet) : -1;
}
