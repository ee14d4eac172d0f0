// The MIB state object: the rows of the SNMP tables, for the whole cluster. It is at "snmp/trel/trelMib"
// in the state database. The pipelines write it and the SNMP modules read it, on the event loop's thread.
//
// For each table <t>:
//   <t>()              the table, for lookup by key and for ordered iteration
//   <t>(key)           the row under the key, or null
//   <t>Is(...)         inserts; see below
//   <t>Del(key)        removes the row and returns it, or null (and publishes nothing) when there is none
//   <t>Del(iterator)   the same for the row under the iterator's key, null past the end; the iterator stays
//                      valid
//   <t>DelAll()        removes every row, one by one in key order
//
// Insertion into the interface, reachability, system and processor tables: when the key has an equal row,
// that row is returned and nothing is published; when its row has other values, it stays and
// Kor::MutatorReinstantiationException is thrown. To change a row, delete it and insert the new one.
// Insertion into the storage table replaces: the same entry object changes nothing, another one takes its
// place; a null entry throws Kor::NullArgumentException.
//
// Every insertion, replacement and removal is published once, synchronously, after it was made. Subscribers
// must not change anything (platform/kor/Publication.h). Values are neither checked nor clamped.
#pragma once

#include "mib-state/PublishedTable.h"

namespace TrelSnmp {

// A published table of each type.
template <class... Tables>
struct PublishedTables : PublishedTable<Tables>... {
  explicit PublishedTables(const TablePublisher& publisher) : PublishedTable<Tables>(publisher)... {}
};

class TrelMib final : public Kor::Entity {
 public:
  // The object's path in the state database, relative to the system's root.
  static constexpr const char* kPath = "snmp/trel/trelMib";

  using Change = TableChange;
  using RowKey = TrelSnmp::RowKey;

  explicit TrelMib(Kor::String name) : Entity(std::move(name)) {}
  const TablePublisher& publisher() const { return publisher_; }

  // The table of that type, with the operations above. Five tables also have operations of their own names.
  template <class TableType>
  const PublishedTable<TableType>& of() const {
    return tables_;
  }
  template <class TableType>
  PublishedTable<TableType>& of() {
    return tables_;
  }

  using IfEntryPtr = Zavro::Ptr<const TrelIfEntry>;
  const TrelIfTable& trelIfTable() const { return of<TrelIfTable>().table(); }
  IfEntryPtr trelIfTable(uint32_t ifIndex) const { return of<TrelIfTable>().entry(ifIndex); }
  IfEntryPtr trelIfTableIs(uint32_t ifIndex, uint32_t localMemberId, uint32_t remoteMemberId) {
    return of<TrelIfTable>().is(ifIndex, localMemberId, remoteMemberId);
  }
  IfEntryPtr trelIfTableDel(uint32_t ifIndex) { return of<TrelIfTable>().del(ifIndex); }
  IfEntryPtr trelIfTableDel(const TrelIfTable::Cursor& iterator) { return of<TrelIfTable>().del(iterator); }
  void trelIfTableDelAll() { of<TrelIfTable>().delAll(); }

  using ReachabilityEntryPtr = Zavro::Ptr<const TrelReachabilityEntry>;
  const TrelReachabilityTable& trelReachabilityTable() const { return of<TrelReachabilityTable>().table(); }
  ReachabilityEntryPtr trelReachabilityTable(const MemberIdPair& key) const {
    return of<TrelReachabilityTable>().entry(key);
  }
  ReachabilityEntryPtr trelReachabilityTableIs(const MemberIdPair& key,
                                               const TrelReachabilityEntry::State& state,
                                               const TrelReachabilityEntry::IfMib& ifMib) {
    return of<TrelReachabilityTable>().is(key, state, ifMib);
  }
  ReachabilityEntryPtr trelReachabilityTableDel(const MemberIdPair& key) {
    return of<TrelReachabilityTable>().del(key);
  }
  ReachabilityEntryPtr trelReachabilityTableDel(const TrelReachabilityTable::Cursor& iterator) {
    return of<TrelReachabilityTable>().del(iterator);
  }
  void trelReachabilityTableDelAll() { of<TrelReachabilityTable>().delAll(); }

  using HrSystemEntryPtr = Zavro::Ptr<const TrelHrSystemEntry>;
  const TrelHrSystemTable& trelHrSystemTable() const { return of<TrelHrSystemTable>().table(); }
  HrSystemEntryPtr trelHrSystemTable(uint32_t trelMemberId) const {
    return of<TrelHrSystemTable>().entry(trelMemberId);
  }
  HrSystemEntryPtr trelHrSystemTableIs(uint32_t trelMemberId, const TrelHrSystemEntry::Host& host) {
    return of<TrelHrSystemTable>().is(trelMemberId, host);
  }
  HrSystemEntryPtr trelHrSystemTableDel(uint32_t trelMemberId) {
    return of<TrelHrSystemTable>().del(trelMemberId);
  }
  HrSystemEntryPtr trelHrSystemTableDel(const TrelHrSystemTable::Cursor& iterator) {
    return of<TrelHrSystemTable>().del(iterator);
  }
  void trelHrSystemTableDelAll() { of<TrelHrSystemTable>().delAll(); }

  using ProcessorEntryPtr = Zavro::Ptr<const TrelProcessorEntry>;
  const TrelProcessorTable& trelProcessorTable() const { return of<TrelProcessorTable>().table(); }
  ProcessorEntryPtr trelProcessorTable(const ProcessorKey& key) const {
    return of<TrelProcessorTable>().entry(key);
  }
  ProcessorEntryPtr trelProcessorTableIs(const ProcessorKey& key,
                                         const TrelProcessorEntry::Processor& processor) {
    return of<TrelProcessorTable>().is(key, processor);
  }
  ProcessorEntryPtr trelProcessorTableDel(const ProcessorKey& key) {
    return of<TrelProcessorTable>().del(key);
  }
  ProcessorEntryPtr trelProcessorTableDel(const TrelProcessorTable::Cursor& iterator) {
    return of<TrelProcessorTable>().del(iterator);
  }
  void trelProcessorTableDelAll() { of<TrelProcessorTable>().delAll(); }

  using HrStorageEntryPtr = Zavro::Ptr<const TrelHrStorageEntry>;
  const TrelHrStorageTable& trelHrStorageTable() const { return of<TrelHrStorageTable>().table(); }
  HrStorageEntryPtr trelHrStorageTable(const TrelHrStorageKey& key) const {
    return of<TrelHrStorageTable>().entry(key);
  }
  // Inserts the entry under its own key.
  HrStorageEntryPtr trelHrStorageTableIs(const HrStorageEntryPtr& entry) {
    return of<TrelHrStorageTable>().is(entry);
  }
  HrStorageEntryPtr trelHrStorageTableDel(const TrelHrStorageKey& key) {
    return of<TrelHrStorageTable>().del(key);
  }
  HrStorageEntryPtr trelHrStorageTableDel(const TrelHrStorageTable::Cursor& iterator) {
    return of<TrelHrStorageTable>().del(iterator);
  }
  void trelHrStorageTableDelAll() { of<TrelHrStorageTable>().delAll(); }

  static const Kor::Type& type();
  const Kor::Type& korType() const override { return type(); }

 private:
  TablePublisher publisher_;
  TablesIn<PublishedTables> tables_{publisher_};
};

Zavro::Ptr<TrelMib> trelMibFactory(const Kor::String& name);
inline constexpr auto TrelMibIs = &trelMibFactory;

}  // namespace TrelSnmp
