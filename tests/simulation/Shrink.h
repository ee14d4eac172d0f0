// Makes failing scenarios short.
#pragma once

#include <functional>
#include <string>

#include "tests/simulation/Step.h"

namespace Simulation {

// What a failure is about, without the numbers in it: as long as that is the same, it is the same failure.
std::string sortOf(const std::string& failure);

// A scenario that fails in the same way, with as few steps as leaving out and simplifying gets at, in at most
// so many tries. failureOf: what a scenario fails with; empty: it does not.
Scenario shrunk(Scenario scenario, const std::function<std::string(const Scenario&)>& failureOf,
                size_t tries);

}  // namespace Simulation
