// What is followed: a directory with one HostResources::HostResources for each member, named by the member's
// id, and in each of them the collection storageInfoTable (one record for each mounted file system, by mount
// point) and the attribute memInfo (one record, or none).
//
// What is looked up, but not followed: the storage mappings, which give a mount point or a kind of memory its
// row's index, type and description. A change of a mapping alone changes no row here, so whoever changes a
// mapping sets the records that it concerns again (kelstore/StorageMappings.h does).
//
// What is written: trelHrStorageTable, keyed by (member, index of the mapping).
//
// What happens to rows:
//   a file system's record appears, is replaced     the row of its mapping is written, replacing one that is
//                                                   there
//   it vanishes                                     the row of its mapping is deleted
//   a file system without mapping                   is ignored, also when it vanishes; a stale row of it is
//                                                   left to reconciliation
//   a memory record appears, is replaced            one row for each memory mapping is written
//   it vanishes                                     the row of each memory mapping is deleted
//   a member's entity vanishes                      its mapped file systems' rows are deleted, then the
//                                                   row of each memory mapping
//   the entity is replaced                          the same, and the new entity's rows are written
//   an entity of another type                       is traced and counts as absent
//
// Both streams fill one table, which is ready when both have been scanned. Two directory keys may spell the
// same member ("3" and "03"), and two mappings the same index: the later event on a row wins.
#include "pipelines/TrelSnmpHrStorageTableSm.h"

#include "platform/trel/MemberId.h"
#include "platform/zavro/Assert.h"

namespace TrelSnmp::Agent {
namespace {

const Lumalog::Handle storageTrace("TrelSnmpHrStorageTableSm");

constexpr size_t kMountStream = 0;
constexpr size_t kMemStream = 1;

constexpr const char* kMountStreamStatement =
    "mountStream = from( hostResourcesDir.entityPtr< HostResources::HostResources >[].storageInfoTable[] ): "
    "dirKey={} mountpt={} storageOpt={}";
constexpr const char* kMemStreamStatement =
    "memStream = from( hostResourcesDir.entityPtr< HostResources::HostResources >[].memInfo ): dirKey={} "
    "memInfoOpt={}";
constexpr const char* kMappedFilter =
    "filter( storageEntryMappings.mountEntries[ mountpt ] ) failed, terminating pipeline";
constexpr const char* kMemEntriesFlattened =
    " foreach( storageEntryMappings.memEntries ) flattening {} elements";
constexpr const char* kFlatteningElement = "Flattening element: {}";

// The level of each flattened element.
constexpr int kFlattenedLevel = 9;

}  // namespace

namespace RivoCode::TrelSnmpHrStorageTableSm {
namespace {

// cast, record: the names of the pointer and of its type in the assertion.
StorageRow castToRow(const StorageRow& made, const char* cast, const char* record) {
  if (!made) {
    Zavro::assertFailed(fmt::format("{} && \"dynamic cast to TrelSnmp::TrelHrStorageEntry::PtrConst from "
                                    "TrelSnmp::{}::PtrConst failed\"",
                                    cast, record),
                        static_cast<const char*>(__PRETTY_FUNCTION__), static_cast<const char*>(__FILE__),
                        __LINE__);
  }
  return made;
}

}  // namespace

StorageRow rowOf(const Zavro::Ptr<const TrelHrStorageEntryMount>& made) {
  return castToRow(made, "_tmpCast26_", "TrelHrStorageEntryMount");
}

StorageRow rowOf(const Zavro::Ptr<const TrelHrStorageEntryMem>& made) {
  return castToRow(made, "_tmpCast14_", "TrelHrStorageEntryMem");
}

}  // namespace RivoCode::TrelSnmpHrStorageTableSm

void TrelSnmpHrStorageTableSm::StorageRows::write(TrelMib& mib, const TrelHrStorageKey& key,
                                                  const StorageRow& row) {
  if (row->key() != key) {
    Zavro::assertFailed(
        fmt::format("In \"{}\" the value inserted in the into statement has internal key: {}, "
                    "but the key specified in the into is: {}",
                    kInto, row->key(), key),
        static_cast<const char*>(__PRETTY_FUNCTION__), static_cast<const char*>(__FILE__), __LINE__);
  }
  mib.trelHrStorageTableIs(row);
}

std::string TrelSnmpHrStorageTableSm::StorageRows::text(const TrelHrStorageKey& key, const StorageRow& row) {
  return fmt::format("({}, {}, {}, {}, {}, {})", key, row->type(), row->descr(), row->allocationUnits(),
                     row->size(), row->used());
}

// Events from outside

void TrelSnmpHrStorageTableSm::eventToMountStream(const Kor::String& dirKey, const Kor::String& mountpt,
                                                  const Storage& storageOpt) {
  if (!initialScanDone()) return;
  if (storageTrace.enabled(kElementLevel)) {
    storageTrace.trace(kElementLevel, kMountStreamStatement, dirKey, mountpt, Kor::optText(storageOpt));
  }
  const auto* mapping = storageEntryMappings_->mountEntries().find(mountpt);
  if (mapping == nullptr) {
    storageTrace.trace(kStepLevel, kMappedFilter);
    return;
  }
  TrelHrStorageKey key(Trel::MemberId::fromString(dirKey).id(), mapping->index);
  intoTrelHrStorageTable(key, storageOpt
                                  ? RivoCode::TrelSnmpHrStorageTableSm::rowOf(trelHrStorageEntryMountFactory(
                                        key, mapping->type, mapping->description, storageOpt))
                                  : nullptr);
}

void TrelSnmpHrStorageTableSm::eventToMemStream(const Kor::String& dirKey, const Memory& memInfoOpt) {
  if (!initialScanDone()) return;
  if (storageTrace.enabled(kElementLevel)) {
    storageTrace.trace(kElementLevel, kMemStreamStatement, dirKey, Kor::optText(memInfoOpt));
  }
  Trel::MemberId member = Trel::MemberId::fromString(dirKey);
  const auto& mappings = storageEntryMappings_->memEntries();
  storageTrace.trace(kStepLevel, kMemEntriesFlattened, mappings.size());
  for (auto at = mappings.begin(); at; at.next()) {
    const HostResourcesMib::StorageTableEntry& mapping = *at.value();
    storageTrace.trace(kFlattenedLevel, kFlatteningElement, mapping);
    TrelHrStorageKey key(member.id(), mapping.index);
    intoTrelHrStorageTable(key, memInfoOpt
                                    ? RivoCode::TrelSnmpHrStorageTableSm::rowOf(trelHrStorageEntryMemFactory(
                                          key, mapping.type, mapping.description, memInfoOpt))
                                    : nullptr);
  }
}

void TrelSnmpHrStorageTableSm::intoTrelHrStorageTable(const TrelHrStorageKey& key, const StorageRow& row) {
  if (row) {
    output_.write(key, row);
  } else {
    output_.del(key);
  }
}

// Machines

void TrelSnmpHrStorageTableSm::createMachines() {
  using HostResourcesDirSm0 = RivoCode::TrelSnmpHrStorageTableSm::HostResourcesDirSm0;
  using HostResources::HostResources;
  auto statement = directoryStatement<HostResources>("hostResourcesDir");
  statement.wrongType += ' ';
  statement.keyTrace = "k: {}";
  statement.streams = {{kMountStream, {}}, {kMemStream, {}}};
  statement.childInputs = [this](const Kor::String& dirKey, const HostResources& member) {
    EntityMachine::Inputs inputs;
    inputs.push_back(recordsInput(kMountStream, "storageInfoTable", member.storageInfoTable(),
                                  [this, dirKey](const Kor::String& mountpt, const Storage& storage) {
                                    eventToMountStream(dirKey, mountpt, storage);
                                  }));
    inputs.push_back(recordsInput(kMemStream, "memInfo", member.memInfoElement(),
                                  [this, dirKey](HostResources::MemInfoKey, const Memory& memInfo) {
                                    eventToMemStream(dirKey, memInfo);
                                  }));
    return inputs;
  };
  addMachine(Zavro::makePtr<HostResourcesDirSm0>(*this, hostResourcesDir_, hostResourcesDir_->entities(),
                                                 std::move(statement)));
}

// The root

TrelSnmpHrStorageTableSm::TrelSnmpHrStorageTableSm(Zavro::Ptr<const Kor::Dir> hostResourcesDir,
                                                   Zavro::Ptr<TrelMib> trelMib, Mappings storageEntryMappings,
                                                   const Rvx::SmControl& control)
    : Pipeline(storageTrace, std::move(trelMib), control, {"mountStream", "memStream"}),
      hostResourcesDir_(std::move(hostResourcesDir)),
      storageEntryMappings_(std::move(storageEntryMappings)),
      output_(*this, {kMountStream, kMemStream}) {
  start();
}

std::vector<Pipeline::PointerArgument> TrelSnmpHrStorageTableSm::pointerArguments() const {
  return {{"hostResourcesDir", hostResourcesDir_.get()},
          {"trelMib", trelMib().get()},
          {"storageEntryMappings", storageEntryMappings_.get()}};
}

std::vector<Rvx::RegistryKey> TrelSnmpHrStorageTableSm::derivations(
    const Zavro::Ptr<const Kor::Dir>& hostResourcesDir, const Mappings& storageEntryMappings) {
  return {Rvx::RegistryKey::make(hostResourcesDir,
                                 "entityPtr< HostResources::HostResources >[].storageInfoTable[]",
                                 storageEntryMappings, "mountEntries[]"),
          Rvx::RegistryKey::make(hostResourcesDir, "entityPtr< HostResources::HostResources >[].memInfo",
                                 storageEntryMappings, "memEntries[]")};
}

void TrelSnmpHrStorageTableSm::processDepends() {
  for (const Rvx::RegistryKey& key : derivations(hostResourcesDir_, storageEntryMappings_)) {
    if (Rvx::GlobalState::get().checkRegistry(key)) continue;
    storageTrace.trace(9, "nobody declared that {} follows {}", key.targetPath(), key.sourcePath());
  }
}

Zavro::Ptr<TrelSnmpHrStorageTableSm> trelSnmpHrStorageTableSmFactory(
    Zavro::Ptr<const Kor::Dir> hostResourcesDir, Zavro::Ptr<TrelMib> trelMib,
    TrelSnmpHrStorageTableSm::Mappings storageEntryMappings, const Rvx::SmControl& control) {
  return Zavro::makePtr<TrelSnmpHrStorageTableSm>(std::move(hostResourcesDir), std::move(trelMib),
                                                  std::move(storageEntryMappings), control);
}

}  // namespace TrelSnmp::Agent
