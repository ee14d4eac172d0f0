// What stands at a place in Universe.h, whatever the number: beyond the end they begin anew.
#pragma once

#include <string>

#include "platform/trel/Topology.h"
#include "tests/simulation/Universe.h"

namespace Simulation {

inline std::string keyAt(uint32_t place) { return std::string(kKeys[place % kKeys.size()]); }
inline Trel::MemberId memberAt(uint32_t place) { return Trel::MemberId(kMembers[place % kMembers.size()]); }
inline Lanix::IntfId interfaceAt(uint32_t place) {
  return Lanix::IntfId(std::string(kInterfaces[place % kInterfaces.size()]));
}
inline uint32_t processorAt(uint32_t place) { return kProcessors[place % kProcessors.size()]; }
inline std::string mountAt(uint32_t place) { return std::string(kMounts[place % kMounts.size()]); }

}  // namespace Simulation
