// What a seed stands for.
#pragma once

#include "tests/simulation/Step.h"

namespace Simulation {

// Seeds of one group run in one process, and so have the same toggles.
inline constexpr uint64_t kSeedsOfGroup = 128;

// The same for the same seed, on every machine.
Scenario scenarioOf(uint64_t seed);
Conditions conditionsOf(uint64_t seed);

}  // namespace Simulation
