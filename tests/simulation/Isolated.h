// Runs in a process of their own, so that a run which ends the process, or ruins it, is a result like any
// other.
#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "tests/simulation/Driver.h"

namespace Simulation {

// What such a process says about itself while it runs, in memory that is shared with it.
struct Report {
  uint64_t seed;  // of the run that is under way
  uint64_t seeds;
  uint64_t events;
  uint64_t publications;
  uint64_t digest;
  uint64_t failedAt;
  char failure[1024];

  void failureIs(const std::string& text);
};

// A child process that does a piece of work. One that is still there is killed by its id when the object
// goes, and by the kernel when this process dies.
class Isolated final {
 public:
  explicit Isolated(const std::function<void(Report&)>& work);
  ~Isolated();
  Isolated(const Isolated&) = delete;
  Isolated& operator=(const Isolated&) = delete;

  int pid() const { return pid_; }
  const Report& report() const { return *report_; }
  // Whether it has ended; then failure() is complete.
  bool ended();
  void wait();
  // What it reported, or how it died and what it wrote to its standard error; empty when all was well.
  std::string failure();

 private:
  int pid_ = -1;
  int errors_ = -1;
  Report* report_;
  bool ended_ = false;
  int status_ = 0;
};

// A scenario in a process of its own.
Outcome runIsolated(const Scenario& scenario);

}  // namespace Simulation
