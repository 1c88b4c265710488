// When a wake phrase was said, from the wake-up engine's posteriors.
#pragma once

#include <cstdint>
#include <deque>
#include <utility>
#include <vector>

#include "wakeup/ChineseConv.h"

namespace quibo::recordings {

class PhraseFinder {
 public:
  // One step of the decoder, and the end of its block in the recording, in samples.
  void add(const WORD_ITEM& keyword, const float* posteriors, int64_t block_end);

  // Span in samples of the phrase that ends with the last step: the best path through the keyword's
  // syllables (Viterbi) within the last three seconds, begun a syllable earlier.
  std::pair<int64_t, int64_t> find() const;

  void clear() { steps_.clear(); }

 private:
  struct Step {
    std::vector<float> posterior;  // of each state of the keyword
    int64_t end;
  };
  std::deque<Step> steps_;
};

}  // namespace quibo::recordings
