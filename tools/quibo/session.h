// All that is done to one recording: read, played, written into a folder.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "events.h"
#include "run.h"
#include "tracks.h"

namespace quibo::recordings {

struct SessionOptions {
  InputOptions input;
  RunOptions run;
  std::string folder;   // for the outputs, made where it is missing; empty: nothing is written
  std::string events;   // file of the events; empty: events.jsonl in the folder; "-": none
  bool report = false;  // report.html in the folder
};

// What a session tells while it goes on; functions may be empty.
struct SessionCallbacks {
  std::function<void(const std::string& note)> note;  // what was assumed
  std::function<void(int number, const Wake&)> wake;
  std::function<void(const Json& event)> event;  // every line of the events
  std::function<void(const int16_t* const outputs[kOutputs], int samples)> outputs;
  std::function<bool(int64_t done, int64_t total)> go_on;  // samples; total -1: not known
};

struct SessionResult {
  RunResult run;
  std::vector<std::string> warnings;  // what to look at, a line each
};

// Throws FileProblem and WrongUse; outputs are then not there.
SessionResult run_session(const std::string& path, const SessionOptions& options,
                          const SessionCallbacks& callbacks);

}  // namespace quibo::recordings
