// The storage pipeline: keeps TrelMib's trelHrStorageTable equal to the file systems and the memory that
// every member publishes and that have a storage mapping.
#pragma once

#include "pipelines/framework/CollectionStream.h"
#include "pipelines/framework/DirMachine.h"
#include "pipelines/framework/Output.h"
#include "platform/hostresources/StorageEntryMappings.h"
#include "platform/rvx/Registry.h"

namespace TrelSnmp::Agent {

using StorageRow = Zavro::Ptr<const TrelHrStorageEntry>;

namespace RivoCode::TrelSnmpHrStorageTableSm {

using HostResourcesDirSm0 = DirectoryMachine<HostResources::HostResources>;
using EntityPtrSm1 = EntityMachine;
using InputSmScanState = ::TrelSnmp::Agent::InputSmScanState;
using OutputState = ::TrelSnmp::Agent::OutputState;

// The entry as a row of the table. Ends the process when it is null.
StorageRow rowOf(const Zavro::Ptr<const TrelHrStorageEntryMount>& made);
StorageRow rowOf(const Zavro::Ptr<const TrelHrStorageEntryMem>& made);

}  // namespace RivoCode::TrelSnmpHrStorageTableSm

class TrelSnmpHrStorageTableSm final : public Pipeline {
 public:
  using Storage = Zavro::Ptr<const HostResources::StorageInfo>;
  using Memory = Zavro::Ptr<const HostResources::MemInfo>;
  using Mappings = Zavro::Ptr<const HostResourcesMib::StorageEntryMappings>;

  struct StorageRows : TableRows<TrelHrStorageTable> {
    using Value = StorageRow;
    // Replaces a row: none is deleted first. Ends the process when the row's own key differs from key.
    static void write(TrelMib& mib, const TrelHrStorageKey& key, const Value& row);
    static std::string text(const TrelHrStorageKey& key, const Value& row);
  };
  using TrelMibTrelHrStorageTableOutputKeyType = TrelHrStorageKey;

  // None of the pointers may be null: the process ends otherwise.
  TrelSnmpHrStorageTableSm(Zavro::Ptr<const Kor::Dir> hostResourcesDir, Zavro::Ptr<TrelMib> trelMib,
                           Mappings storageEntryMappings, const Rvx::SmControl& control);
  ~TrelSnmpHrStorageTableSm() override { stop(); }

  const Zavro::Ptr<const Kor::Dir>& hostResourcesDir() const { return hostResourcesDir_; }
  const Mappings& storageEntryMappings() const { return storageEntryMappings_; }
  const Output<StorageRows>& trelMibTrelHrStorageTableOutput() const { return output_; }

  // The derivations of the mappings, which the pipeline reads but does not follow: their mountEntries from
  // every member's file systems, their memEntries from every member's memory.
  static std::vector<Rvx::RegistryKey> derivations(const Zavro::Ptr<const Kor::Dir>& hostResourcesDir,
                                                   const Mappings& storageEntryMappings);

  // One stream element of member dirKey; null when the member no longer publishes it. Both do nothing before
  // the initial scan is done.
  void eventToMountStream(const Kor::String& dirKey, const Kor::String& mountpt, const Storage& storageOpt);
  void eventToMemStream(const Kor::String& dirKey, const Memory& memInfoOpt);
  void handleTrelMibTrelHrStorageTableOutputInputReady() { output_.handleInputReady(); }

 private:
  std::vector<PointerArgument> pointerArguments() const override;
  void processDepends() override;
  void createMachines() override;

  void intoTrelHrStorageTable(const TrelHrStorageKey& key, const StorageRow& row);

  const Zavro::Ptr<const Kor::Dir> hostResourcesDir_;
  const Mappings storageEntryMappings_;
  Output<StorageRows> output_;
};

Zavro::Ptr<TrelSnmpHrStorageTableSm> trelSnmpHrStorageTableSmFactory(
    Zavro::Ptr<const Kor::Dir> hostResourcesDir, Zavro::Ptr<TrelMib> trelMib,
    TrelSnmpHrStorageTableSm::Mappings storageEntryMappings, const Rvx::SmControl& control);

}  // namespace TrelSnmp::Agent
