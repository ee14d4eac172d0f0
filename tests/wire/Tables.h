// The five tables as a manager sees them: where they stand, and every instance of them for a state document.
#pragma once

#include <array>
#include <map>
#include <nlohmann/json.hpp>

#include "tests/wire/Message.h"

namespace Wire {

struct TableShape {
  const char* name;
  Oid root;  // of the table
  size_t indexes;
  uint32_t firstColumn;  // of those that are served; the ones before it are the index
  uint32_t lastColumn;
  bool takesSets;  // is registered for SET, and refuses it itself
};
const std::array<TableShape, 5>& tableShapes();

// The table whose root the name is at or below; null when there is none.
const TableShape* tableOf(const Oid& name);

// When the daemon started: times of last changes are served as its uptime then.
class AgentClock {
 public:
  // Seconds since 1970 UTC, known to a tenth of a millisecond.
  explicit AgentClock(double startUtc = 0) : startUtc_(startUtc) {}

  uint32_t ticksAt(uint64_t utcNs) const;
  // Whether the above is certain, which next to the turn of a tick it is not.
  bool knows(uint64_t utcNs) const;

  // A document whose rows veldaTrelReachabilityLastUpdate tell when the daemon started, and what they tell.
  static nlohmann::json question(uint64_t aroundUtcNs);
  static uint64_t lastNs(uint64_t aroundUtcNs);  // of the times in it
  static AgentClock answer(uint64_t aroundUtcNs, const std::vector<uint32_t>& ticks);

 private:
  double exactTicksAt(uint64_t utcNs) const;
  double startUtc_;
};

// Every instance, in walk order. Requires: no two rows claim one index of a table, and every value can be
// used.
using Tree = std::map<Oid, Value>;
Tree treeOf(const nlohmann::json& document, const AgentClock& clock);

}  // namespace Wire
