// From direction vectors to an angle.
#pragma once

#include "doa/ring_doa.h"

// Heading of a vector in degrees: 0 along +y, growing towards +x (clockwise where +y points up).
// Right in all four quadrants, and deliberately plain on the axes: 0 for x = 0 whatever y, about
// +-90 for y = 0 (so -90, not 270, along -x).
float change_xy_to_angle(float x, float y);

// Appends a row (x, y, length, angle) to the window and drops the oldest.
void add_to_doa_win_buff(LAYER_DATA_DOA* dlayer, float x, float y, float angle);
