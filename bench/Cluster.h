// A cluster in which every member reports every other one and has as many storage areas as neighbours: the
// same rows for whatever serves them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Bench {

enum class Table { reachability, storage };

struct Row {
  uint32_t member;
  uint32_t second;  // the neighbour, or the storage index
};

// In the order of a walk: members * (members - 1) rows.
std::vector<Row> rowsOf(Table table, uint32_t members);

// What the rows hold, besides their index.
inline constexpr uint32_t kAllocationUnits = 4096;
inline constexpr uint32_t kStorageFree = 1000;
inline uint32_t storageSizeOf(const Row& row) { return 1'000'000 + row.second; }
std::string mountOf(const Row& row);

// The state document that makes a daemon serve these rows.
std::string documentOf(uint32_t members, const char* reachability = "reachable");

// In an snmpd.conf: the community public may read everything from this machine. With a view, native answers
// to a GETBULK of several columns would be left to net-snmp's chain.
inline constexpr const char* kAccess = "rocommunity public 127.0.0.1";

}  // namespace Bench
