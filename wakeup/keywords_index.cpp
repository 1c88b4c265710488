#include "wakeup/ChineseParams.h"

// One keyword, "ling dang ling dang": identifier 0, threshold 0.60, divisor 4.0, four syllables. In
// a unit of its own, so that it is read at run time like the other tables.
const int16_t keywords_index[] = {1, 0, 60, 40, 4, 125, 2, 125, 2};
