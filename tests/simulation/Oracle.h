// What the five tables are to hold: plain functions from the state to rows. They know nothing of pipelines,
// notifications, tasks or time, and derive what they need (which member a directory key spells, what a
// backplane channel interface is called) by themselves.
#pragma once

#include <vector>

#include "platform/kor/Dir.h"
#include "platform/trel/Topology.h"
#include "tests/simulation/Rows.h"

namespace Simulation {

// What one element of the inputs wants to stand in a table. Two claims on one key cannot both be met: then
// the order of events decides, which the state does not tell (Follower.h).
struct Claim {
  Key key;
  Row row;
  uint64_t nested = 0;  // nestedIn()
  bool operator==(const Claim&) const = default;
};
// In the order of keys.
using Claims = std::vector<Claim>;

// The member that a directory key spells: decimal digits, 0 to 255; 0 for any other text.
uint32_t memberOf(std::string_view directoryKey);
bool isBackplane(std::string_view interface);

Claims interfaceClaims(const Trel::TopologyConfig& topology, const IntfSnmp::IfMib& ifMib);
Claims reachabilityClaims(const Kor::Dir& reachabilityDir, const IntfSnmp::IfMib& ifMib);
Claims systemClaims(const Kor::Dir& hostResourcesDir);
Claims processorClaims(const Kor::Dir& hostResourcesDir);
Claims storageClaims(const Kor::Dir& hostResourcesDir,
                     const HostResourcesMib::StorageEntryMappings& mappings);

// The index that a link's row has at present; nothing when it has none.
std::optional<uint32_t> indexOfLink(const Trel::TopologyConfig& topology, const IntfSnmp::IfMib& ifMib,
                                    uint32_t local, uint32_t remote);

}  // namespace Simulation
