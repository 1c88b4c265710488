#include "engine.h"

#include <pthread.h>

#include <stdexcept>
#include <string>

namespace quibo::python {
namespace {

std::mutex engine_turn;
pid_t owner = 0;  // the process of the one front end or echo suppressor; 0: there is none

// A child must not inherit a turn that a thread of its parent had.
const int at_fork = pthread_atfork([] { engine_turn.lock(); }, [] { engine_turn.unlock(); },
                                   [] { engine_turn.unlock(); });

}  // namespace

std::mutex& turn() {
  (void)at_fork;
  return engine_turn;
}

OnlyOne::OnlyOne() {
  if (owner == getpid()) {
    throw std::runtime_error(
        "this process already has a front end or an echo suppressor, and the library keeps state "
        "that two would share: close() that one first, or use a process for each");
  }
  owner = getpid();
}

OnlyOne::~OnlyOne() {
  if (here()) owner = 0;
}

void require_open(const std::optional<OnlyOne>& only) {
  if (!only) throw std::runtime_error("closed");
  if (!only->here()) {
    throw std::runtime_error("made in process " + std::to_string(only->pid()) +
                             " and of no use in its fork: make a new one here");
  }
}

}  // namespace quibo::python
