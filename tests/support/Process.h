// A program run by a test. It never outlives the test: it is killed, by its id, when the object goes, and by
// the kernel when the test's own process dies.
#pragma once

#include <sys/types.h>

#include <csignal>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/WaitUntil.h"

namespace Support {

// Program, found along PATH, and its arguments.
using Argv = std::vector<std::string>;
// "NAME=value", put over the test's own environment.
using Env = std::vector<std::string>;

class Process final {
 public:
  // Throws std::runtime_error when no process can be made. A program that cannot be run exits with 127.
  explicit Process(const Argv& argv, const Env& env = {});
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  pid_t pid() const { return pid_; }
  bool running() { return !wait(Millis(0)); }
  // All that it wrote until now.
  std::string out() const { return content(outFd_); }
  std::string err() const { return content(errFd_); }

  void signal(int number) const;
  // Whether no thread of it can be reached by the signal now: it waits until the process takes it.
  bool holds(int number) const;
  // Exit status, or 128 and the number of the signal that killed it, as a shell says it; nothing when it
  // still runs at the deadline.
  std::optional<int> wait(Millis deadline = 10s);
  // SIGTERM, then wait.
  std::optional<int> stop(int number = SIGTERM, Millis deadline = 10s);

 private:
  static std::string content(int fd);

  pid_t pid_ = -1;
  int pidFd_ = -1;
  int outFd_ = -1;
  int errFd_ = -1;
  std::optional<int> status_;
};

struct Result {
  int status;  // as Process::wait() says it
  std::string out;
  std::string err;
};

// Runs a program to its end. Throws std::runtime_error when that takes longer than the deadline.
Result run(const Argv& argv, const Env& env = {}, Millis deadline = 30s);

}  // namespace Support
