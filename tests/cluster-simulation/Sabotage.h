// Faults that are put into what is tested, to see that the simulation finds them.
#pragma once

#include <cstdint>

namespace ClusterSimulation {

enum class Sabotage : uint8_t {
  none,
  noGrace,            // rows go with their lease
  noHold,             // another store counts at once
  noResync,           // what a watch loses is never noticed
  watchStaysDead,     // what reopens a watch gets the dead one back
  fragmentsAreWhole,  // an answer's fragments count as answers
  noMark,             // a member that leaves does not say so
  noRenewal,          // a publisher does not renew its lease
  renewsForEver,      // writes that fail are said to work
  noStandby,          // a publisher does not see others' keys
};

}  // namespace ClusterSimulation
