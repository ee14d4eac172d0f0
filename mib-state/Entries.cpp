#include "mib-state/Entries.h"

#include "platform/zavro/Assert.h"

namespace TrelSnmp {
namespace {

constexpr double kNsPerSecond = 1000000000.0;

// Storage indexes of the kinds of memory.
constexpr uint32_t kPhysicalMemory = 1;
constexpr uint32_t kUnreclaimableMemory = 100;
constexpr uint32_t kBuffers = 2;
constexpr uint32_t kPageCache = 3;

template <class Entry>
Kor::TypeBuilder<Entry> storageTypeBuilder(const char* name) {
  Kor::TypeBuilder<Entry> builder(name);
  builder.attribute("key", &Entry::key)
      .attribute("type", [](const Entry& e) { return e.TrelHrStorageEntry::type().text(); })
      .attribute("descr", &Entry::descr)
      .attribute("allocationUnits", &Entry::allocationUnits);
  return builder;
}

// A figure of a mount entry as text: "None" without a storage record.
auto figureOrNone(uint32_t (TrelHrStorageEntryMount::*figure)() const) {
  return [figure](const TrelHrStorageEntryMount& e) {
    return e.storageInfo() ? std::to_string((e.*figure)()) : "None";
  };
}

// A reference to an entity as text.
template <class T>
std::string nameOrNone(const Zavro::Ptr<const T>& entity) {
  return entity ? entity->name() : "None";
}

}  // namespace

const char* TrelIfEntry::differsFrom(uint32_t localMemberId, uint32_t remoteMemberId) const {
  if (localMemberId_ != localMemberId) return "localMemberId";
  if (remoteMemberId_ != remoteMemberId) return "remoteMemberId";
  return nullptr;
}

const Kor::Type& TrelIfEntry::type() {
  static const Kor::Type type = Kor::TypeBuilder<TrelIfEntry>("TrelSnmp::TrelIfEntry")
                                    .attribute("ifIndex", &TrelIfEntry::ifIndex)
                                    .attribute("localMemberId", &TrelIfEntry::localMemberId)
                                    .attribute("remoteMemberId", &TrelIfEntry::remoteMemberId)
                                    .build();
  return type;
}

double TrelReachabilityEntry::lastUpdated() const {
  return reachabilityState_ ? static_cast<double>(reachabilityState_->lastChangeNs()) / kNsPerSecond : 0;
}

uint32_t TrelReachabilityEntry::baIfIndex() const {
  if (!reachabilityState_ || !ifMib_) return 0;
  Lanix::IntfId intf = reachabilityState_->backplaneChannelIntfId().value_or(Lanix::IntfId());
  const uint32_t* ifIndex = ifMib_->ifIndexByIntfId().find(intf);
  return ifIndex != nullptr ? *ifIndex : 0;
}

const char* TrelReachabilityEntry::differsFrom(const State& state, const IfMib& ifMib) const {
  if (reachabilityState_ != state) return "reachabilityState";
  if (ifMib_ != ifMib) return "ifMib";
  return nullptr;
}

const Kor::Type& TrelReachabilityEntry::type() {
  static const Kor::Type type =
      Kor::TypeBuilder<TrelReachabilityEntry>("TrelSnmp::TrelReachabilityEntry")
          .attribute("key", &TrelReachabilityEntry::key)
          .attribute("reachabilityState", &TrelReachabilityEntry::reachabilityState)
          .attribute("ifMib", [](const TrelReachabilityEntry& e) { return nameOrNone(e.ifMib()); })
          .attribute("lastUpdated", &TrelReachabilityEntry::lastUpdated)
          .attribute("baIfIndex", &TrelReachabilityEntry::baIfIndex)
          .build();
  return type;
}

const char* TrelHrSystemEntry::differsFrom(const Host& hostResources) const {
  return hostResources_ != hostResources ? "hostResources" : nullptr;
}

const Kor::Type& TrelHrSystemEntry::type() {
  static const Kor::Type type =
      Kor::TypeBuilder<TrelHrSystemEntry>("TrelSnmp::TrelHrSystemEntry")
          .attribute("trelMemberId", &TrelHrSystemEntry::trelMemberId)
          .attribute("hostResources",
                     [](const TrelHrSystemEntry& e) { return nameOrNone(e.hostResources()); })
          .build();
  return type;
}

uint32_t TrelHrStorageEntryMount::allocationUnits() const {
  return storageInfo_ ? storageInfo_->allocationUnits() : 0;
}

uint32_t TrelHrStorageEntryMount::size() const {
  zavroAssert(storageInfo_ != nullptr);
  return static_cast<uint32_t>(storageInfo_->size());
}

uint32_t TrelHrStorageEntryMount::used() const {
  zavroAssert(storageInfo_ != nullptr);
  return static_cast<uint32_t>(storageInfo_->size()) - static_cast<uint32_t>(storageInfo_->free());
}

const Kor::Type& TrelHrStorageEntryMount::korTypeInfo() {
  static const Kor::Type type =
      storageTypeBuilder<TrelHrStorageEntryMount>("TrelSnmp::TrelHrStorageEntryMount")
          .attribute("size", figureOrNone(&TrelHrStorageEntryMount::size))
          .attribute("used", figureOrNone(&TrelHrStorageEntryMount::used))
          .attribute("storageInfo", &TrelHrStorageEntryMount::storageInfo)
          .build();
  return type;
}

uint32_t TrelHrStorageEntryMem::size() const { return memInfo_ ? memInfo_->amounts().total.value_or(0) : 0; }

uint32_t TrelHrStorageEntryMem::used() const {
  if (size() == 0) return 0;
  const auto& amounts = memInfo_->amounts();
  switch (key().hrStorageIndex()) {
    case kPhysicalMemory:
      return size() - amounts.free.value_or(0);
    case kUnreclaimableMemory:
      return size() - amounts.available.value_or(0);
    case kBuffers:
      return size() - amounts.nonBuffer.value_or(0);
    case kPageCache:
      return size() - amounts.nonCache.value_or(0);
    default:
      return 0;
  }
}

const Kor::Type& TrelHrStorageEntryMem::korTypeInfo() {
  static const Kor::Type type = storageTypeBuilder<TrelHrStorageEntryMem>("TrelSnmp::TrelHrStorageEntryMem")
                                    .attribute("size", &TrelHrStorageEntryMem::size)
                                    .attribute("used", &TrelHrStorageEntryMem::used)
                                    .attribute("memInfo", &TrelHrStorageEntryMem::memInfo)
                                    .build();
  return type;
}

Zavro::Ptr<const TrelHrStorageEntryMount> trelHrStorageEntryMountFactory(TrelHrStorageKey key,
                                                                         Snmp::ObjectIdentifier type,
                                                                         Kor::String descr,
                                                                         TrelHrStorageEntryMount::Info info) {
  return Zavro::makePtr<const TrelHrStorageEntryMount>(key, std::move(type), std::move(descr),
                                                       std::move(info));
}

Zavro::Ptr<const TrelHrStorageEntryMem> trelHrStorageEntryMemFactory(TrelHrStorageKey key,
                                                                     Snmp::ObjectIdentifier type,
                                                                     Kor::String descr,
                                                                     TrelHrStorageEntryMem::Info info) {
  return Zavro::makePtr<const TrelHrStorageEntryMem>(key, std::move(type), std::move(descr), std::move(info));
}

}  // namespace TrelSnmp
