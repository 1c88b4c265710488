// The result of a check as JSON, for `quibo check --json` and the report.
#pragma once

#include <functional>

#include "check.h"
#include "events.h"

namespace quibo::recordings {

Json check_json(const CheckResult& result);

// What `quibo check --json` tells of a recording, after check_recording().
Json checked_recording(const std::string& name, const FileTracks& tracks,
                       const CheckResult& result);

// Reads a whole recording and looks at it; go_on, where there is one, is called between frames and
// ends it by false. Throws FileProblem.
CheckResult check_recording(FileTracks& tracks, const std::function<bool()>& go_on = nullptr);

// Shows a check what frames are made of; call finish() of the check after the last frame.
void feed(Check* check, FrameReader* frames);

}  // namespace quibo::recordings
