#include "tests/simulation/Tasks.h"

namespace Simulation {

bool Tasks::Yields::shouldYield() {
  switch (mode_) {
    case YieldMode::never:
      return false;
    case YieldMode::always:
      return true;
    case YieldMode::sometimes:
      return random_.percent(40);
    case YieldMode::rarely:
      return random_.percent(5);
    default:
      clock_.advanceNs(random_.below(3'000'000));
      return slice_.shouldYield();
  }
}

bool Tasks::slice(uint32_t which, YieldMode mode, uint32_t draw) {
  auto tasks = scheduler_->tasks();
  std::erase_if(tasks, [](const Vem::Task* task) { return !task->scheduled(); });
  if (tasks.empty()) return false;
  yields_.are(mode, draw);
  return scheduler_->run(*tasks[which % tasks.size()]);
}

}  // namespace Simulation
