// The cluster's links as a daemon knows them, and what is wrong with them: as text, for Graphviz, and as a
// picture.
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <set>
#include <string>
#include <vector>

#include "programs/trelctl/TableChanges.h"

namespace TrelCtl {

// One direction of a link: what the member at this end says of it.
struct LinkEnd {
  int from = 0;
  int to = 0;
  std::string interface;       // empty: the topology does not have it
  uint32_t ifIndex = 0;        // 0: none
  std::string state;           // as served, "reachable"; empty: no row
  std::string verdict = "ok";  // of the link
  bool faulty() const { return verdict != "ok"; }
};

struct Topology {
  std::set<int> members;
  std::set<int> silent;        // of these, those that others name, but that say nothing themselves
  std::vector<LinkEnd> links;  // by `from`, then `to`
};

// tables: rows as on the wire. links: as the daemon answers.
Topology topologyOf(const ShownTables& tables, const Json& links);

// Each in a line: "link 1-3: noIndex".
std::vector<std::string> faultsOf(const Topology& topology);

std::string topologyText(const Topology& topology);
Json topologyJson(const Topology& topology);
// For `dot -Tpng`, or another of Graphviz' programs.
std::string topologyDot(const Topology& topology);
// The members on a circle. Interface indexes are at the ends of the links, unless there are too many members.
std::string topologySvg(const Topology& topology);

// Of a link's end in a picture, "#2e9e4f".
const char* colourOf(const std::string& state);

}  // namespace TrelCtl
