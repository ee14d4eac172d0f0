// What members publish of their hosts as a test sets it up, and the three tables as a test compares them.
#pragma once

#include <memory>
#include <string>

#include "pipelines/TrelSnmpHostResourcesSm.h"
#include "pipelines/TrelSnmpHrStorageTableSm.h"
#include "tests/support/DrivenScheduler.h"

namespace TrelSnmp::Agent {

struct HostWorld {
  using Host = HostResources::HostResources;
  using Processor = Zavro::Ptr<const HostResources::Processor>;
  using Storage = Zavro::Ptr<const HostResources::StorageInfo>;
  using Memory = Zavro::Ptr<const HostResources::MemInfo>;
  using Mapping = HostResourcesMib::StorageTableEntry;

  DrivenScheduler scheduler;
  Zavro::Ptr<Kor::Dir> dir = Zavro::makePtr<Kor::Dir>("hostResourcesDir");
  Zavro::Ptr<HostResourcesMib::StorageEntryMappings> mappings =
      Zavro::makePtr<HostResourcesMib::StorageEntryMappings>();
  Zavro::Ptr<TrelMib> mib = trelMibFactory("trelMib");
  Zavro::Ptr<TrelSnmpHostResourcesSm> sm;
  Zavro::Ptr<TrelSnmpHrStorageTableSm> storageSm;

  static Processor processor(int16_t load) { return Zavro::makePtr<HostResources::Processor>(load); }
  // 100 units of 512 bytes, of which some are free.
  static Storage storage(uint64_t free) {
    return Zavro::makePtr<HostResources::StorageInfo>(512U, uint64_t{100}, free);
  }
  static Memory memory(uint32_t free) {
    HostResources::MemInfo::Amounts amounts;
    amounts.total = 1000;
    amounts.free = free;
    return Zavro::makePtr<HostResources::MemInfo>(amounts);
  }

  Host* member(const std::string& key) const { return dynamic_cast<Host*>(dir->entityPtr(key).get()); }
  // Each has a number of users of its own, which tells a row of one from a row of another.
  Zavro::Ptr<Host> newHost(const std::string& key) const {
    auto entity = Zavro::makePtr<Host>(key);
    Host::System figures;
    figures.systemNumUsers = ++hosts_;
    entity->systemIs(figures);
    return entity;
  }
  // Puts a new entity under the key, whatever is there.
  Host& joins(const std::string& key) {
    auto entity = newHost(key);
    dir->entityPtrIs(key, entity);
    return *entity;
  }
  // The member's entity, which joins when there is none. Held, since what its joining leads to may make it
  // leave.
  Zavro::Ptr<Host> host(const std::string& key) const {
    Zavro::Ptr<Host> entity(member(key));
    if (!entity) {
      entity = newHost(key);
      dir->entityPtrIs(key, entity);
    }
    return entity;
  }
  // A new entity with the same records in it takes the member's place.
  void replacedAlike(const std::string& key) {
    Zavro::Ptr<Host> old(member(key));
    if (!old) return;
    auto entity = newHost(key);
    for (auto at = old->processorTable().begin(); at; at.next())
      entity->processorTable().set(at.key(), *at.value());
    for (auto at = old->storageInfoTable().begin(); at; at.next()) {
      entity->storageInfoTable().set(at.key(), *at.value());
    }
    entity->memInfoIs(old->memInfo());
    dir->entityPtrIs(key, entity);
  }
  void leaves(const std::string& key) { dir->entityPtrDel(key); }
  void load(const std::string& key, uint32_t index, int16_t percent) {
    host(key)->processorTable().set(index, processor(percent));
  }
  void mounts(const std::string& key, const std::string& mountpt, uint64_t free) {
    host(key)->storageInfoTable().set(mountpt, storage(free));
  }
  void remembers(const std::string& key, uint32_t free) { host(key)->memInfoIs(memory(free)); }
  // The row's description is the mount point, the memory kind's number.
  void mapMount(const std::string& mountpt, uint32_t index) const {
    mappings->mountEntries().set(mountpt, {Snmp::ObjectIdentifier("1.3.6.4"), mountpt, index});
  }
  void mapMemory(int32_t kind, uint32_t index) const {
    mappings->memEntries().set(kind, {Snmp::ObjectIdentifier("1.3.6.2"), std::to_string(kind), index});
  }

  Rvx::SmControl control(Rvx::Mode mode = Rvx::Mode::pipelineDefault) const {
    Rvx::SmControl control;
    control.scheduler = scheduler.get();
    control.mode = mode;
    return control;
  }
  void start(Rvx::Mode mode = Rvx::Mode::pipelineDefault) { replace(sm, mode); }
  void startAndDrain() {
    start();
    scheduler.drain();
  }
  void startStorage(Rvx::Mode mode = Rvx::Mode::pipelineDefault) { replace(storageSm, mode); }
  void startStorageAndDrain() {
    startStorage();
    scheduler.drain();
  }
  // Puts a new pipeline in the slot, as the agent does: over the filled tables, if there was one.
  template <class Sm>
  void replace(Zavro::Ptr<Sm>& slot, Rvx::Mode mode) const {
    if (slot) slot->hasNotificationActiveIs(false);
    Zavro::Ptr<Sm> made = make(static_cast<const Sm*>(nullptr), mode);
    slot = made;
    made->hasNotificationActiveIs(true);
  }

  // "[ 1 3 ]"
  std::string systemRows() const {
    std::string text = "[ ";
    for (auto row = mib->trelHrSystemTable().begin(); row; row.next()) {
      text += fmt::format("{} ", row.key());
    }
    return text + "]";
  }
  // "[ (1,0)=7 (1,1)=-1 ]"
  std::string processorRows() const {
    std::string text = "[ ";
    for (auto row = mib->trelProcessorTable().begin(); row; row.next()) {
      text += processorText(row.key(), row.entry()->processor());
    }
    return text + "]";
  }
  // "[ (1,1)=1:600 (1,31)=/:40 ]": description and units used.
  std::string storageRows() const {
    std::string text = "[ ";
    for (auto row = mib->trelHrStorageTable().begin(); row; row.next()) {
      text += storageText(row.key(), row.entry()->descr(), row.entry()->used());
    }
    return text + "]";
  }
  static uint32_t id(const std::string& key) { return Trel::MemberId::fromString(key).id(); }
  static std::string storageText(const TrelHrStorageKey& key, const std::string& descr, uint32_t used) {
    return fmt::format("({},{})={}:{} ", key.trelMemberId(), key.hrStorageIndex(), descr, used);
  }

 private:
  mutable uint32_t hosts_ = 0;

  Zavro::Ptr<TrelSnmpHostResourcesSm> make(const TrelSnmpHostResourcesSm*, Rvx::Mode mode) const {
    return trelSnmpHostResourcesSmFactory(dir, mib, control(mode));
  }
  Zavro::Ptr<TrelSnmpHrStorageTableSm> make(const TrelSnmpHrStorageTableSm*, Rvx::Mode mode) const {
    return trelSnmpHrStorageTableSmFactory(dir, mib, mappings, control(mode));
  }
  static std::string processorText(const ProcessorKey& key, const Processor& record) {
    return fmt::format("({},{})={} ", key.trelMemberId(), key.processorIndex(), record->load());
  }
};

// Every publication of the tables, "+trelHrSystemTable 1" for a row that is written and "-..." for a removal,
// since the last take().
class HostPublications {
 public:
  explicit HostPublications(const TrelMib& mib)
      : subscription_(mib.publisher().subscribe([this](const TrelMib::Change& change) {
          text_ += fmt::format("{}{} ", change.entry ? '+' : '-', rowText(change));
        })) {}
  std::string take() { return std::exchange(text_, ""); }

 private:
  static std::string rowText(const TrelMib::Change& change) {
    if (const auto* member = std::get_if<uint32_t>(&change.key)) return fmt::format("system({})", *member);
    if (const auto* key = std::get_if<ProcessorKey>(&change.key)) {
      return fmt::format("processor({},{})", key->trelMemberId(), key->processorIndex());
    }
    const auto& key = std::get<TrelHrStorageKey>(change.key);
    return fmt::format("storage({},{})", key.trelMemberId(), key.hrStorageIndex());
  }
  std::string text_;
  Kor::Subscription subscription_;
};

}  // namespace TrelSnmp::Agent
