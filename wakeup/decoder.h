// From scores to posteriors, and from posteriors to the wake decision.
//
// Per keyword a left-to-right chain of classes, blank - syllable - blank - ... - blank, carries
// forward scores as in connectionist temporal classification (Graves et al. 2006), streaming: from
// the second step on the first state is 1, scores are limited to 1 and decay in silence. The cost
// of a keyword is -ln(score of its last syllable) / div.
#pragma once

#include "wakeup/ChineseConv.h"

namespace quibo::wakeup {

// Reads a keyword table into the decoder: the number of entries, then per entry identifier,
// threshold * 100, divisor * 10, number of syllables, syllable classes. Returns 0, or -1 after
// printing why; what was allocated stays in the decoder.
int32_t read_word_from_customer_dict(DECODER* decoder, const int16_t* table);

// Releases the keywords and the decoder, however far they got. Null is allowed.
void destroy_decoder(DECODER* decoder);

// Every score to 0.
void reset_decoder(DECODER* decoder);

// reset_decoder, and the blank run forgotten.
void start_recog(DECODER* decoder);

// The last layer's codes (out2) to 146 posteriors in `afreq`. The filler's and the blank's scores
// are damped where they are positive, and left where negative, on purpose.
void post_score_augument(EWordNet* net);

// One decoder step on the posteriors in `afreq`; adds the filler to the blank there. Returns 0 when
// keyword 0 fires, which clears the scores; else -1.
int32_t run_decoder(EWordNet* net);

}  // namespace quibo::wakeup
