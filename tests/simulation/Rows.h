// Rows of the five tables in one form, for comparison: what a row holds, told by the records' own numbers and
// not by their addresses, which say nothing of a record that is gone.
#pragma once

#include <compare>
#include <cstdint>
#include <string>

#include "mib-state/TrelMib.h"
#include "platform/hostresources/StorageEntryMappings.h"
#include "tests/oracle/Entities.h"

namespace Simulation {

enum class TableId : uint8_t { baIf, reachability, system, processor, storage };
inline constexpr size_t kTables = 5;
const char* nameOf(TableId table);  // TrelMib's attribute
// Throws std::out_of_range for a name that is none.
TableId tableNamed(std::string_view attribute);

// A key of any table; those of one part have 0 in the second.
struct Key {
  uint32_t first = 0;
  uint32_t second = 0;
  auto operator<=>(const Key&) const = default;
  template <class Hash>
  friend Hash AbslHashValue(Hash hash, const Key& key) {
    return Hash::combine(std::move(hash), key.first, key.second);
  }
  std::string text() const;
};

// Which record a row shows, and what else there is to it.
struct Row {
  uint64_t record = 0;  // serial(); not of the interface table
  uint32_t x = 0;       // interface: local member; reachability: set of the interface MIB; storage: mapping
  uint32_t y = 0;       // interface: remote member; storage: StorageKind
  bool operator==(const Row&) const = default;
  std::string text() const;
};
enum StorageKind : uint32_t { kMountRow = 1, kMemoryRow = 2 };

// The number that tells a record, entity or mapping from all others of its type in a run. Whoever makes one
// writes the number into it (State.h).
inline constexpr uint64_t kNoRecord = ~uint64_t{0};
uint64_t serial(const Trel::ReachabilityState* record);
uint64_t serial(const HostResources::Processor* record);
uint64_t serial(const HostResources::StorageInfo* record);
uint64_t serial(const HostResources::MemInfo* record);
uint64_t serial(const Kor::Entity* entity);  // the digits at the end of its name
uint32_t serial(const HostResourcesMib::StorageTableEntry& mapping);
// Of a mapping's type and description, as a row shows them; another number when they do not belong together.
uint32_t mappingSerial(const std::string& type, const std::string& description);
// What a mapping with that number reads as.
std::string mappingType(uint32_t serial);
std::string mappingDescription(uint32_t serial);

Row rowOf(const TrelSnmp::TrelIfEntry& entry);
Row rowOf(const TrelSnmp::TrelReachabilityEntry& entry);
Row rowOf(const TrelSnmp::TrelHrSystemEntry& entry);
Row rowOf(const TrelSnmp::TrelProcessorEntry& entry);
Row rowOf(const TrelSnmp::TrelHrStorageEntry& entry);

template <class TableKey>
Key keyOf(const TableKey& key) {
  auto [first, second] = Oracle::keyOf(key);
  return {first, second};
}
Key keyOf(const TrelSnmp::TrelMib::RowKey& key);

// Calls visit(const auto& table) for the table of the MIB state object.
template <class Visit>
auto withTable(const TrelSnmp::TrelMib& mib, TableId table, Visit visit) {
  switch (table) {
    case TableId::baIf:
      return visit(mib.trelIfTable());
    case TableId::reachability:
      return visit(mib.trelReachabilityTable());
    case TableId::system:
      return visit(mib.trelHrSystemTable());
    case TableId::processor:
      return visit(mib.trelProcessorTable());
    default:
      return visit(mib.trelHrStorageTable());
  }
}

}  // namespace Simulation
