// The command's subcommands. Each adds itself to the command line and returns what runs it; the
// result is the exit status.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <string>

#include "tracks.h"

namespace quibo::command {

enum ExitStatus {
  kAllFine = 0,
  kSomethingToLookAt = 1,
  kWrongUse = 2,
  kFileProblem = 3,
  kInterrupted = 130,  // as a shell reports a program ended by Ctrl-C
};

using Action = std::function<int()>;

Action add_run(CLI::App& app);
Action add_check(CLI::App& app);
Action add_live(CLI::App& app);

// The options that say how a recording is read, filled in by the command line.
struct ReadingOptions {
  std::string channels, encoding = "guess", raw;

  void add_to(CLI::App& app);
  recordings::InputOptions parse() const;  // throws WrongUse
};

}  // namespace quibo::command
