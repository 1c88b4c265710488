// The result of a check as JSON, for `quibo check --json` and the report.
#pragma once

#include "check.h"
#include "events.h"

namespace quibo::recordings {

Json check_json(const CheckResult& result);

// Reads a whole recording and looks at it. Throws FileProblem.
CheckResult check_recording(FileTracks& tracks);

// Shows a check what frames are made of; call finish() of the check after the last frame.
void feed(Check* check, FrameReader* frames);

}  // namespace quibo::recordings
