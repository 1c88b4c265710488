// One process per recording, some at a time: the library keeps state per process.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace quibo::command {

// From a worker to the one who shows: a kind and a line of text.
class Channel {
 public:
  explicit Channel(int descriptor) : descriptor_(descriptor) {}
  void send(char kind, const std::string& text) const;

 private:
  int descriptor_;
};

struct Workers {
  // Does job `index` in a process of its own; the result is its exit status.
  std::function<int(size_t index, const Channel& channel)> work;
  // In the calling process: what a worker sent, and its end. A worker that was ended by a signal
  // has the status -signal.
  std::function<void(size_t index, char kind, const std::string& text)> receive;
  std::function<void(size_t index, int status)> ended;

  // Runs jobs 0 .. count-1, at most `at_once` at a time. After Ctrl-C no more are started.
  void run(size_t count, size_t at_once);
};

// Whether Ctrl-C (or a request to end) came: workers finish their frame and close their files.
bool interrupted();

// From now on Ctrl-C is only noted, and handed on to the workers.
void note_interrupts();

}  // namespace quibo::command
