// The one object in which the view of the whole cluster is kept, at "snmp/trel/trelMib" of the state
// database. The pipelines write it, the SNMP modules read it, all on the event loop's thread.
//
// For each table <t>:
//   <t>()              the table, for lookup by key and for ordered iteration
//   <t>(key)           the row under the key, or null
//   <t>Is(...)         inserts; see below
//   <t>Del(key)        removes the row and returns it, or null (and publishes nothing) when there is none
//   <t>Del(iterator)   the same for the row under the iterator's key; the iterator stays usable (past the end
//                      there is no row: null)
//   <t>DelAll()        removes every row, one by one in key order
//
// Inserting into the four strict tables: an equal row is returned as it is and nothing is published; a row
// with other values makes Kor::MutatorReinstantiationException and stays as it is. Whoever wants a row with
// other values deletes it first. The storage table replaces: the same entry object changes nothing, another
// one takes its place; a null entry makes Kor::NullArgumentException.
//
// Every insertion, replacement and removal is published once, synchronously, after it was made. Whoever hears
// of it only looks: see platform/kor/Publication.h. No value is clamped or checked.
#pragma once

#include <string_view>
#include <variant>

#include "mib-state/Table.h"
#include "platform/kor/Notifier.h"

namespace TrelSnmp {

using TrelIfTable = Table<TrelIfEntry>;
using TrelReachabilityTable = Table<TrelReachabilityEntry>;
using TrelHrSystemTable = Table<TrelHrSystemEntry>;
using TrelProcessorTable = Table<TrelProcessorEntry>;
using TrelHrStorageTable = Table<KorTrelHrStorageTable, TrelHrStorageEntry>;

class TrelMib final : public Kor::Entity {
 public:
  // Where modules find the object, relative to the system's root.
  static constexpr const char* kPath = "snmp/trel/trelMib";

  using RowKey = std::variant<uint32_t, MemberIdPair, ProcessorKey, TrelHrStorageKey>;
  struct Change {
    std::string_view table;  // attribute name, such as "trelIfTable"
    RowKey key;
    Zavro::Ptr<const Kor::ValueEntity> entry;  // the new row; null for a removal
  };
  using Publisher = Kor::Notifier<Change>;

  explicit TrelMib(Kor::String name) : Entity(std::move(name)) {}
  const Publisher& publisher() const { return publisher_; }

  const TrelIfTable& trelIfTable() const { return trelIfTable_; }
  Zavro::Ptr<const TrelIfEntry> trelIfTable(uint32_t ifIndex) const;
  Zavro::Ptr<const TrelIfEntry> trelIfTableIs(uint32_t ifIndex, uint32_t localMemberId,
                                              uint32_t remoteMemberId);
  Zavro::Ptr<const TrelIfEntry> trelIfTableDel(uint32_t ifIndex);
  Zavro::Ptr<const TrelIfEntry> trelIfTableDel(const TrelIfTable::Cursor& iterator);
  void trelIfTableDelAll();

  const TrelReachabilityTable& trelReachabilityTable() const { return trelReachabilityTable_; }
  Zavro::Ptr<const TrelReachabilityEntry> trelReachabilityTable(const MemberIdPair& key) const;
  Zavro::Ptr<const TrelReachabilityEntry> trelReachabilityTableIs(const MemberIdPair& key,
                                                                  TrelReachabilityEntry::State state,
                                                                  TrelReachabilityEntry::IfMib ifMib);
  Zavro::Ptr<const TrelReachabilityEntry> trelReachabilityTableDel(const MemberIdPair& key);
  Zavro::Ptr<const TrelReachabilityEntry> trelReachabilityTableDel(
      const TrelReachabilityTable::Cursor& iterator);
  void trelReachabilityTableDelAll();

  const TrelHrSystemTable& trelHrSystemTable() const { return trelHrSystemTable_; }
  Zavro::Ptr<const TrelHrSystemEntry> trelHrSystemTable(uint32_t trelMemberId) const;
  Zavro::Ptr<const TrelHrSystemEntry> trelHrSystemTableIs(uint32_t trelMemberId,
                                                          TrelHrSystemEntry::Host host);
  Zavro::Ptr<const TrelHrSystemEntry> trelHrSystemTableDel(uint32_t trelMemberId);
  Zavro::Ptr<const TrelHrSystemEntry> trelHrSystemTableDel(const TrelHrSystemTable::Cursor& iterator);
  void trelHrSystemTableDelAll();

  const TrelProcessorTable& trelProcessorTable() const { return trelProcessorTable_; }
  Zavro::Ptr<const TrelProcessorEntry> trelProcessorTable(const ProcessorKey& key) const;
  Zavro::Ptr<const TrelProcessorEntry> trelProcessorTableIs(const ProcessorKey& key,
                                                            TrelProcessorEntry::Processor processor);
  Zavro::Ptr<const TrelProcessorEntry> trelProcessorTableDel(const ProcessorKey& key);
  Zavro::Ptr<const TrelProcessorEntry> trelProcessorTableDel(const TrelProcessorTable::Cursor& iterator);
  void trelProcessorTableDelAll();

  const TrelHrStorageTable& trelHrStorageTable() const { return trelHrStorageTable_; }
  Zavro::Ptr<const TrelHrStorageEntry> trelHrStorageTable(const TrelHrStorageKey& key) const;
  // Files the entry under its own key.
  Zavro::Ptr<const TrelHrStorageEntry> trelHrStorageTableIs(Zavro::Ptr<const TrelHrStorageEntry> entry);
  Zavro::Ptr<const TrelHrStorageEntry> trelHrStorageTableDel(const TrelHrStorageKey& key);
  Zavro::Ptr<const TrelHrStorageEntry> trelHrStorageTableDel(const TrelHrStorageTable::Cursor& iterator);
  void trelHrStorageTableDelAll();

  static const Kor::Type& type();
  const Kor::Type& korType() const override { return type(); }

 private:
  void publish(const Change& change);
  template <class TableType>
  static typename TableType::EntryPtr entryUnder(const TableType& table, const typename TableType::Key& key);
  template <class TableType, class... Fields>
  typename TableType::EntryPtr strictIs(std::string_view name, TableType& table,
                                        const typename TableType::Key& key, const Fields&... fields);
  template <class TableType>
  typename TableType::EntryPtr del(std::string_view name, TableType& table, typename TableType::Key key);
  template <class TableType>
  typename TableType::EntryPtr delAt(std::string_view name, TableType& table,
                                     const typename TableType::Cursor& iterator);
  template <class TableType>
  void delAll(std::string_view name, TableType& table);

  Publisher publisher_;
  TrelIfTable trelIfTable_;
  TrelReachabilityTable trelReachabilityTable_;
  TrelHrSystemTable trelHrSystemTable_;
  TrelProcessorTable trelProcessorTable_;
  TrelHrStorageTable trelHrStorageTable_;
};

Zavro::Ptr<TrelMib> trelMibFactory(const Kor::String& name);
inline constexpr auto TrelMibIs = &trelMibFactory;

}  // namespace TrelSnmp
