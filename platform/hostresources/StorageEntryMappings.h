// The storage mappings: the index, type and description of the storage table's row for a mount point or a
// kind of memory.
#pragma once

#include <cstdint>

#include "platform/kor/Collection.h"
#include "platform/kor/Entity.h"
#include "platform/snmp/ObjectIdentifier.h"

namespace HostResourcesMib {

struct StorageTableEntry {
  Snmp::ObjectIdentifier type;  // one of the registered hrStorageTypes of RFC 2790
  Kor::String description;
  uint32_t index = 0;  // the row's hrStorageIndex
  bool operator==(const StorageTableEntry&) const = default;
  // "(type=1.3.6.1.2.1.25.2.1.2, description=RAM, index=1)"
  std::string text() const {
    return fmt::format("(type={}, description={}, index={})", type, description, index);
  }
};

// A singleton (Kor::Entity::singletonIs(kTypeName)).
class StorageEntryMappings final : public Kor::Entity {
 public:
  static constexpr const char* kTypeName = "HostResourcesMib::StorageEntryMappings";
  using MountEntries = Kor::Collection<Kor::String, StorageTableEntry>;  // by mount point
  using MemEntries = Kor::Collection<int32_t, StorageTableEntry>;        // by a number that only orders them

  StorageEntryMappings() : Entity("storageEntryMappings") {}
  const MountEntries& mountEntries() const { return mountEntries_; }
  MountEntries& mountEntries() { return mountEntries_; }
  const MemEntries& memEntries() const { return memEntries_; }
  MemEntries& memEntries() { return memEntries_; }

  static const Kor::Type& type();
  const Kor::Type& korType() const override { return type(); }

 private:
  MountEntries mountEntries_;
  MemEntries memEntries_;
};

}  // namespace HostResourcesMib
