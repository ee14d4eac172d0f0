// How the members of a cluster are wired: as the document that an agent is given, and as the answers that a
// manager expects of the backplane interface table.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tests/e2e/Reports.h"

namespace E2e {

// ifIndex to the member at this end and the member at the far end.
using Links = std::map<uint32_t, Pair>;

std::string documentOf(const Links& links);

// The same piece by piece, so that a link and an index may each be there without the other, and be shared.
struct Wiring {
  std::map<Pair, std::string> links;        // member and neighbour, to the interface that reaches it
  std::map<std::string, uint32_t> indexes;  // interface to its ifIndex
};

std::string documentOf(const Wiring& wiring);
// In walk order, "baif.2.1001 = INTEGER: 1".
std::vector<Varbind> treeOf(const Links& links);

}  // namespace E2e
