// What the library is given, and what its tables hold, as the oracle's rows.
#pragma once

#include "mib-state/TrelMib.h"
#include "platform/hostresources/StorageEntryMappings.h"
#include "platform/kor/Dir.h"
#include "platform/trel/Topology.h"
#include "tests/oracle/Rows.h"

namespace Oracle {

// What the tables have to hold.
Rows interfaceRows(const Trel::TopologyConfig& topology, const IntfSnmp::IfMib& ifMib);
Rows reachabilityRows(const Kor::Dir& reachabilityDir, const IntfSnmp::IfMib& ifMib);
Rows systemRows(const Kor::Dir& hostResourcesDir);
Rows processorRows(const Kor::Dir& hostResourcesDir);
Rows storageRows(const Kor::Dir& hostResourcesDir, const HostResourcesMib::StorageEntryMappings& mappings);

// The index that a link's row has to have; nothing when it has no row.
std::optional<uint32_t> indexOfLink(const Trel::TopologyConfig& topology, const IntfSnmp::IfMib& ifMib,
                                    const Pair& members);

inline Pair keyOf(uint32_t key) { return {key, 0}; }
inline Pair keyOf(const TrelSnmp::MemberIdPair& key) { return {key.firstId(), key.secondId()}; }
inline Pair keyOf(const TrelSnmp::ProcessorKey& key) { return {key.trelMemberId(), key.processorIndex()}; }
inline Pair keyOf(const TrelSnmp::TrelHrStorageKey& key) {
  return {key.trelMemberId(), key.hrStorageIndex()};
}

// None for a row without a record.
Columns columnsOf(const TrelSnmp::TrelIfEntry& entry);
Columns columnsOf(const TrelSnmp::TrelReachabilityEntry& entry);
Columns columnsOf(const TrelSnmp::TrelHrSystemEntry& entry);
Columns columnsOf(const TrelSnmp::TrelProcessorEntry& entry);
Columns columnsOf(const TrelSnmp::TrelHrStorageEntry& entry);

// What a table holds.
template <class Table>
Rows rowsIn(const Table& table) {
  Rows rows;
  for (auto row = table.begin(); row; row.next()) rows.insert({keyOf(row.key()), columnsOf(*row.entry())});
  return rows;
}

}  // namespace Oracle
