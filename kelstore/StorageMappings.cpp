#include "kelstore/StorageMappings.h"

#include <optional>
#include <utility>
#include <vector>

namespace Kelstore {
namespace {

using HostResources::MemInfo;
using HostResources::StorageInfo;
using Mappings = HostResourcesMib::StorageEntryMappings;
using Host = Zavro::Ptr<HostResources::HostResources>;

std::vector<Host> allOf(const Kor::Dir& hosts) {
  std::vector<Host> all;
  for (auto at = hosts.entities().begin(); at; at.next()) {
    if (auto host = boost::dynamic_pointer_cast<HostResources::HostResources>(*at.value()))
      all.push_back(host);
  }
  return all;
}

// The records that use the mapping of a mount point.
struct MountRecords {
  using Key = std::string;
  using Record = Zavro::Ptr<const StorageInfo>;
  static auto& entries(Mappings& mappings) { return mappings.mountEntries(); }
  static Record record(const Host& host, const Key& mountPoint) {
    const Record* found = host->storageInfoTable().find(mountPoint);
    return found == nullptr ? nullptr : *found;
  }
  static void takeAway(const Host& host, const Key& mountPoint) { host->storageInfoTable().del(mountPoint); }
  static void announce(const Host& host, const Key& mountPoint, const StorageInfo& was) {
    host->storageInfoTable().set(
        mountPoint, Zavro::makePtr<const StorageInfo>(was.allocationUnits(), was.size(), was.free()));
  }
};

// A host has one memory record, which uses all mappings of memory.
struct MemoryRecords {
  using Key = int32_t;
  using Record = Zavro::Ptr<const MemInfo>;
  static auto& entries(Mappings& mappings) { return mappings.memEntries(); }
  static Record record(const Host& host, Key) { return host->memInfo(); }
  static void takeAway(const Host& host, Key) { host->memInfoIs(nullptr); }
  static void announce(const Host& host, Key, const MemInfo& was) {
    host->memInfoIs(Zavro::makePtr<const MemInfo>(was.amounts()));
  }
};

template <class Kind>
std::vector<std::pair<Host, typename Kind::Record>> recordsOf(const Kor::Dir& hosts,
                                                              const typename Kind::Key& key) {
  std::vector<std::pair<Host, typename Kind::Record>> records;
  for (const Host& host : allOf(hosts)) {
    if (auto record = Kind::record(host, key)) records.emplace_back(host, record);
  }
  return records;
}

template <class Kind>
void announceAt(Mappings& mappings, const Kor::Dir& hosts, uint32_t index) {
  for (auto at = Kind::entries(mappings).begin(); at; at.next()) {
    if (at.value()->index != index) continue;
    for (const auto& [host, record] : recordsOf<Kind>(hosts, at.key()))
      Kind::announce(host, at.key(), *record);
  }
}

template <class Kind>
void mappingIs(Mappings& mappings, const Kor::Dir& hosts, const typename Kind::Key& key,
               const Mapping* mapping) {
  auto& entries = Kind::entries(mappings);
  std::optional<Mapping> before;
  if (const Mapping* found = entries.find(key)) before = *found;
  if (mapping == nullptr ? !before : before == *mapping) return;

  bool leavesIndex = before && (mapping == nullptr || mapping->index != before->index);
  auto records = recordsOf<Kind>(hosts, key);
  if (leavesIndex) {
    for (const auto& [host, record] : records) Kind::takeAway(host, key);
  }
  if (mapping == nullptr) {
    entries.del(key);
  } else {
    entries.set(key, *mapping);
  }
  for (const auto& [host, record] : records) Kind::announce(host, key, *record);
  if (!leavesIndex) return;
  // If mappings swap indexes, the row that went was another record's by then, which is set again here.
  announceAt<MountRecords>(mappings, hosts, before->index);
  announceAt<MemoryRecords>(mappings, hosts, before->index);
}

}  // namespace

void mountMappingIs(Mappings& mappings, const Kor::Dir& hosts, const std::string& mountPoint,
                    const Mapping* mapping) {
  mappingIs<MountRecords>(mappings, hosts, mountPoint, mapping);
}

void memoryMappingIs(Mappings& mappings, const Kor::Dir& hosts, int32_t memory, const Mapping* mapping) {
  mappingIs<MemoryRecords>(mappings, hosts, memory, mapping);
}

}  // namespace Kelstore
