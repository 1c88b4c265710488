// What can go wrong with a recording or a request, as exceptions whose text is one line for a person.
#pragma once

#include <stdexcept>

namespace quibo::recordings {

// The recording cannot be read, or an output cannot be written.
struct FileProblem : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// The request does not fit the recording: wrong channel names, a layout nobody can guess.
struct WrongUse : std::runtime_error {
  using std::runtime_error::runtime_error;
};

}  // namespace quibo::recordings
