// Keeps what is printed out of standard output while it lives: the library says a few lines when a
// front end is created, and standard output may carry results.
#pragma once

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

namespace quibo::recordings {

class QuietOutput {
 public:
  QuietOutput() {
    fflush(stdout);
    kept_ = dup(STDOUT_FILENO);
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (kept_ >= 0 && nowhere >= 0) dup2(nowhere, STDOUT_FILENO);
    if (nowhere >= 0) close(nowhere);
  }
  ~QuietOutput() {
    fflush(stdout);
    if (kept_ < 0) return;
    dup2(kept_, STDOUT_FILENO);
    close(kept_);
  }
  QuietOutput(const QuietOutput&) = delete;
  QuietOutput& operator=(const QuietOutput&) = delete;

 private:
  int kept_;
};

}  // namespace quibo::recordings
