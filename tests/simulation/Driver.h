// Makes the steps of a scenario in one simulated process: the state, an agent over it, tasks in any order,
// walks through the registered tables; and looks after each step whether all is as it should be.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "tests/simulation/Step.h"

namespace Simulation {

struct Outcome {
  std::string failure;  // empty: none
  size_t failedAt = 0;  // how many of the steps had been begun
  uint64_t events = 0;  // steps that did something, and slices
  uint64_t publications = 0;
  uint64_t digest = 0;  // of all that could be seen
};

// Makes ready what runs of this process share: net-snmp, tracing, and the toggles, which are read once in the
// life of a process and so have to be the same for all its runs.
void prepareProcess(const Conditions& conditions);

// Requires: prepareProcess() with the same toggles. After a failure the process is good for nothing else.
// log: gets a line for each step, trace and publication.
Outcome run(const Scenario& scenario, const std::function<void(std::string_view)>& log = {});

}  // namespace Simulation
