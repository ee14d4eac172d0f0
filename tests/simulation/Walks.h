// The steps of a run that walk through the registered tables, several walks at a time.
#pragma once

#include <array>
#include <memory>

#include "tests/simulation/Observer.h"
#include "tests/simulation/State.h"
#include "tests/simulation/Step.h"
#include "tests/simulation/Walker.h"

namespace Simulation {

class Walks {
 public:
  // trelDir: has the MIB state object that is served.
  Walks(State& state, Observer& observer, Zavro::Ptr<Kor::Dir> trelDir)
      : state_(state), observer_(observer), trelDir_(std::move(trelDir)) {}

  // False when the step did nothing. Requires: a step from Kind::walkFirst on.
  bool apply(const Step& step);
  // Ends all walks, and takes the tables back.
  void unregister();

 private:
  bool first(const Step& step, std::unique_ptr<Walker>& walker);

  State& state_;
  Observer& observer_;
  const Zavro::Ptr<Kor::Dir> trelDir_;
  std::array<std::unique_ptr<Walker>, 4> walkers_;
};

}  // namespace Simulation
