#include "workers.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <exception>

#include "problem.h"

namespace quibo::command {

namespace {

volatile sig_atomic_t interrupts = 0;

void note(int) {
  interrupts = interrupts + 1;
}

struct Worker {
  size_t index;
  pid_t process;
  int descriptor;
  std::string received;
  bool told_to_end = false;
};

// Messages: kind, length, text.
constexpr size_t kHeader = 1 + sizeof(uint32_t);

Worker start(const Workers& workers, size_t index, const std::vector<Worker>& others) {
  int ends[2];
  if (pipe(ends) != 0) throw recordings::FileProblem(std::string("no pipe: ") + strerror(errno));
  fflush(stdout);
  fflush(stderr);
  const pid_t process = fork();
  if (process < 0) throw recordings::FileProblem(std::string("no process: ") + strerror(errno));
  if (process > 0) {
    close(ends[1]);
    return {index, process, ends[0], {}};
  }
  close(ends[0]);
  for (const Worker& other : others) close(other.descriptor);
  const int status = workers.work(index, Channel(ends[1]));
  fflush(stdout);
  fflush(stderr);
  _exit(status);
}

// Hands on what is complete of what came. False at the end.
bool read_from(Worker* worker, const Workers& workers) {
  char block[65536];
  const ssize_t got = read(worker->descriptor, block, sizeof block);
  if (got < 0) return errno == EINTR;
  if (got == 0) return false;
  worker->received.append(block, static_cast<size_t>(got));
  size_t at = 0;
  while (worker->received.size() - at >= kHeader) {
    uint32_t length;
    memcpy(&length, worker->received.data() + at + 1, sizeof length);
    if (worker->received.size() - at < kHeader + length) break;
    workers.receive(worker->index, worker->received[at],
                    worker->received.substr(at + kHeader, length));
    at += kHeader + length;
  }
  worker->received.erase(0, at);
  return true;
}

}  // namespace

void Channel::send(char kind, const std::string& text) const {
  std::string message(1, kind);
  const uint32_t length = static_cast<uint32_t>(text.size());
  message.append(reinterpret_cast<const char*>(&length), sizeof length);
  message += text;
  for (size_t sent = 0; sent < message.size();) {
    const ssize_t n = write(descriptor_, message.data() + sent, message.size() - sent);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;  // nobody shows it any more
    sent += static_cast<size_t>(n);
  }
}

bool interrupted() {
  return interrupts > 0;
}

void note_interrupts() {
  struct sigaction action = {};
  action.sa_handler = note;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

void Workers::run(size_t count, size_t at_once) {
  std::vector<Worker> busy;
  size_t next = 0;
  while (next < count || !busy.empty()) {
    while (next < count && busy.size() < at_once && !interrupted()) {
      busy.push_back(start(*this, next++, busy));
    }
    if (interrupted()) {
      next = count;
      for (Worker& worker : busy) {
        if (!worker.told_to_end) kill(worker.process, SIGINT);
        worker.told_to_end = true;
      }
    }
    std::vector<pollfd> polls;
    polls.reserve(busy.size());
    for (const Worker& worker : busy) polls.push_back({worker.descriptor, POLLIN, 0});
    if (poll(polls.data(), polls.size(), -1) < 0) continue;  // a signal
    for (size_t i = busy.size(); i-- > 0;) {
      if (polls[i].revents == 0 || read_from(&busy[i], *this)) continue;
      close(busy[i].descriptor);
      int status = 0;
      while (waitpid(busy[i].process, &status, 0) < 0 && errno == EINTR) continue;
      ended(busy[i].index, WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status));
      busy.erase(busy.begin() + static_cast<std::ptrdiff_t>(i));
    }
  }
}

}  // namespace quibo::command
