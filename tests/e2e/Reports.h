// What the members of a cluster say of each other: as the document that an agent is given, and as the answers
// that a manager expects.
#pragma once

#include <compare>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace E2e {

struct Report {
  std::string state;     // by name
  uint32_t ifIndex = 0;  // 0: the interface toward the neighbour is not known
  uint64_t lastChangeNs = 0;
};

// Reporting member and neighbour.
using Pair = std::pair<int, int>;
using Reports = std::map<Pair, Report>;

// The state document.
std::string documentOf(const Reports& reports);

// The tree that an agent serves for them, in walk order, "reach.4.1.3 = INTEGER: 4". Columns 3 and 4 alone
// when the time of the last change is of no interest.
struct Varbind {
  std::string name;
  std::string value;
  std::string line() const { return name + " = " + value + "\n"; }
};
std::vector<Varbind> treeOf(const Reports& reports);

// Two that most tests are content with, and how the first one's row is served.
inline const Reports kReports = {{{1, 2}, {"reachable", 1002}}, {{2, 1}, {"degraded"}}};
inline constexpr const char* kRow = "reach.4.1.2 = INTEGER: 3\n";

// The lines of a walk.
std::string walkOf(const std::vector<Varbind>& tree);

// Every member of 1..members reports every other one, with all states in turn.
Reports fullMesh(int members);

}  // namespace E2e
