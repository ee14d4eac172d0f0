// The rows of the MIB state object's tables, and the list of these tables. A row is immutable: a change is a
// new row. Some columns are computed from the platform's records each time they are read. A record may be
// null unless a method says otherwise. kTable is the table's name.
#pragma once

#include <cstdint>
#include <variant>

#include "mib-state/RowKeys.h"
#include "mib-state/Table.h"
#include "platform/hostresources/HostResources.h"
#include "platform/intfsnmp/IfMib.h"
#include "platform/kor/Entity.h"
#include "platform/snmp/ObjectIdentifier.h"
#include "platform/trel/Reachability.h"

namespace TrelSnmp {

// Base of rows that consist of a key and one record. Entry::kType is the type's name, Entry::kRecord the
// attribute name of the record.
template <class Entry, class KeyType, class RecordType>
class RecordEntry : public Kor::ValueEntity, public TableHook {
 public:
  using Key = KeyType;
  using Record = Zavro::Ptr<const RecordType>;
  RecordEntry(Key key, Record record) : key_(key), record_(std::move(record)) {}

  const Key& key() const { return key_; }
  const Record& record() const { return record_; }
  // The result of the record's method Figure; 0 without a record.
  template <auto Figure>
  auto figure() const {
    return record_ ? std::invoke(Figure, *record_) : decltype(std::invoke(Figure, *record_)){};
  }

  // kRecord when this row has another record; null when it is the same.
  const char* differsFrom(const Record& record) const { return record_ != record ? Entry::kRecord : nullptr; }

  static const Kor::Type& type() {
    static const Kor::Type type = Kor::TypeBuilder<Entry>(Entry::kType)
                                      .attribute("key", &Entry::key)
                                      .attribute(Entry::kRecord, &Entry::record)
                                      .build();
    return type;
  }
  const Kor::Type& korType() const override { return type(); }

 private:
  Key key_;
  Record record_;
};

// Backplane interface table: an interface and the two members that it joins.
class TrelIfEntry final : public Kor::ValueEntity, public TableHook {
 public:
  static constexpr const char* kTable = "trelIfTable";
  using Key = uint32_t;
  TrelIfEntry(uint32_t ifIndex, uint32_t localMemberId, uint32_t remoteMemberId)
      : ifIndex_(ifIndex), localMemberId_(localMemberId), remoteMemberId_(remoteMemberId) {}

  const Key& key() const { return ifIndex_; }
  uint32_t ifIndex() const { return ifIndex_; }
  uint32_t localMemberId() const { return localMemberId_; }    // member at this end of the link
  uint32_t remoteMemberId() const { return remoteMemberId_; }  // member at the far end

  // The name of the first attribute that differs from these values; null when all are equal.
  const char* differsFrom(uint32_t localMemberId, uint32_t remoteMemberId) const;

  static const Kor::Type& type();
  const Kor::Type& korType() const override { return type(); }

 private:
  uint32_t ifIndex_;
  uint32_t localMemberId_;
  uint32_t remoteMemberId_;
};

// Reachability table: what one member reports of one neighbour.
class TrelReachabilityEntry final : public Kor::ValueEntity, public TableHook {
 public:
  static constexpr const char* kTable = "trelReachabilityTable";
  using Key = MemberIdPair;
  using State = Zavro::Ptr<const Trel::ReachabilityState>;
  using IfMib = Zavro::Ptr<const IntfSnmp::IfMib>;
  TrelReachabilityEntry(Key key, State state, IfMib ifMib)
      : key_(key), reachabilityState_(std::move(state)), ifMib_(std::move(ifMib)) {}

  const Key& key() const { return key_; }
  const State& reachabilityState() const { return reachabilityState_; }
  const IfMib& ifMib() const { return ifMib_; }

  // When the state last changed, in seconds since 1970-01-01 UTC; 0 without a state record.
  double lastUpdated() const;
  // ifIndex of the backplane interface toward the neighbour; 0 when the interface is unknown or has no index.
  uint32_t baIfIndex() const;

  const char* differsFrom(const State& state, const IfMib& ifMib) const;

  static const Kor::Type& type();
  const Kor::Type& korType() const override { return type(); }

 private:
  Key key_;
  State reachabilityState_;
  IfMib ifMib_;
};

// Processor table: one processor of a member.
class TrelProcessorEntry final
    : public RecordEntry<TrelProcessorEntry, ProcessorKey, HostResources::Processor> {
 public:
  static constexpr const char* kTable = "trelProcessorTable";
  static constexpr const char* kType = "TrelSnmp::TrelProcessorEntry";
  static constexpr const char* kRecord = "processor";
  using Processor = Record;
  using RecordEntry::RecordEntry;
  const Processor& processor() const { return record(); }
};

// System table: one member. The figures are read from the member's entity, which changes them in place.
class TrelHrSystemEntry final : public Kor::ValueEntity, public TableHook {
 public:
  static constexpr const char* kTable = "trelHrSystemTable";
  using Key = uint32_t;
  using Host = Zavro::Ptr<const HostResources::HostResources>;
  TrelHrSystemEntry(uint32_t trelMemberId, Host hostResources)
      : trelMemberId_(trelMemberId), hostResources_(std::move(hostResources)) {}

  const Key& key() const { return trelMemberId_; }
  uint32_t trelMemberId() const { return trelMemberId_; }
  const Host& hostResources() const { return hostResources_; }

  const char* differsFrom(const Host& hostResources) const;

  static const Kor::Type& type();
  const Kor::Type& korType() const override { return type(); }

 private:
  uint32_t trelMemberId_;
  Host hostResources_;
};

// Storage table: a mounted file system or a kind of memory.
class TrelHrStorageEntry : public Kor::ValueEntity {
 public:
  using Key = TrelHrStorageKey;

  const Key& key() const { return key_; }
  const Snmp::ObjectIdentifier& type() const { return type_; }  // hrStorageType (RFC 2790)
  const Kor::String& descr() const { return descr_; }           // mount point or memory kind

  virtual uint32_t allocationUnits() const = 0;  // bytes in a unit
  virtual uint32_t size() const = 0;             // in units
  virtual uint32_t used() const = 0;             // in units

 protected:
  TrelHrStorageEntry(Key key, Snmp::ObjectIdentifier type, Kor::String descr)
      : key_(key), type_(std::move(type)), descr_(std::move(descr)) {}

 private:
  Key key_;
  Snmp::ObjectIdentifier type_;
  Kor::String descr_;
};

class TrelHrStorageEntryMount final : public TrelHrStorageEntry {
 public:
  using Info = Zavro::Ptr<const HostResources::StorageInfo>;
  TrelHrStorageEntryMount(Key key, Snmp::ObjectIdentifier type, Kor::String descr, Info storageInfo)
      : TrelHrStorageEntry(key, std::move(type), std::move(descr)), storageInfo_(std::move(storageInfo)) {}

  const Info& storageInfo() const { return storageInfo_; }
  uint32_t allocationUnits() const override;  // 0 without a record
  // Both modulo 2^32; used() is the size less the free amount. Requires: storageInfo() is not null.
  uint32_t size() const override;
  uint32_t used() const override;

  static const Kor::Type& korTypeInfo();
  const Kor::Type& korType() const override { return korTypeInfo(); }

 private:
  Info storageInfo_;
};

class TrelHrStorageEntryMem final : public TrelHrStorageEntry {
 public:
  using Info = Zavro::Ptr<const HostResources::MemInfo>;
  TrelHrStorageEntryMem(Key key, Snmp::ObjectIdentifier type, Kor::String descr, Info memInfo)
      : TrelHrStorageEntry(key, std::move(type), std::move(descr)), memInfo_(std::move(memInfo)) {}

  const Info& memInfo() const { return memInfo_; }
  uint32_t allocationUnits() const override { return 1024; }  // memory is counted in KiB
  uint32_t size() const override;                             // the total, 0 when it is absent
  // The total less the amount for the storage index (1 free, 2 nonBuffer, 3 nonCache, 100 available), modulo
  // 2^32. An absent amount counts as 0. 0 without a total, and for any other index.
  uint32_t used() const override;

  static const Kor::Type& korTypeInfo();
  const Kor::Type& korType() const override { return korTypeInfo(); }

 private:
  Info memInfo_;
};

// Create storage entries. Each function has two names.
Zavro::Ptr<const TrelHrStorageEntryMount> trelHrStorageEntryMountFactory(TrelHrStorageKey key,
                                                                         Snmp::ObjectIdentifier type,
                                                                         Kor::String descr,
                                                                         TrelHrStorageEntryMount::Info info);
Zavro::Ptr<const TrelHrStorageEntryMem> trelHrStorageEntryMemFactory(TrelHrStorageKey key,
                                                                     Snmp::ObjectIdentifier type,
                                                                     Kor::String descr,
                                                                     TrelHrStorageEntryMem::Info info);
inline constexpr auto TrelHrStorageEntryMountIs = &trelHrStorageEntryMountFactory;
inline constexpr auto TrelHrStorageEntryMemIs = &trelHrStorageEntryMemFactory;

// A node of the storage table. It holds the entry, so that the entry can be replaced without a change of the
// tree.
class KorTrelHrStorageTable final : public Zavro::Counted, public TableHook {
 public:
  static constexpr const char* kTable = "trelHrStorageTable";
  using Key = TrelHrStorageKey;
  using Entry = Zavro::Ptr<const TrelHrStorageEntry>;
  explicit KorTrelHrStorageTable(Entry entry) : key_(entry->key()), entry_(std::move(entry)) {}
  const Key& key() const { return key_; }
  const Entry& entry() const { return entry_; }
  void entryIs(Entry entry) { entry_ = std::move(entry); }  // Requires: the same key.

 private:
  Key key_;
  Entry entry_;
};

using TrelIfTable = Table<TrelIfEntry>;
using TrelReachabilityTable = Table<TrelReachabilityEntry>;
using TrelHrSystemTable = Table<TrelHrSystemEntry>;
using TrelProcessorTable = Table<TrelProcessorEntry>;
using TrelHrStorageTable = Table<KorTrelHrStorageTable, TrelHrStorageEntry>;

// List of all tables, in the order in which attributes and reports list them.
template <template <class...> class List>
using TablesIn =
    List<TrelIfTable, TrelReachabilityTable, TrelHrSystemTable, TrelProcessorTable, TrelHrStorageTable>;
// A key of any table.
using RowKey = std::variant<uint32_t, MemberIdPair, ProcessorKey, TrelHrStorageKey>;

}  // namespace TrelSnmp
