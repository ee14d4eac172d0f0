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

#include "mib-state/PublishedTable.h"

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

  using Change = TableChange;
  using RowKey = decltype(Change::key);

  explicit TrelMib(Kor::String name) : Entity(std::move(name)) {}
  const TablePublisher& publisher() const { return publisher_; }

  using IfEntryPtr = Zavro::Ptr<const TrelIfEntry>;
  const TrelIfTable& trelIfTable() const { return ifs_.table(); }
  IfEntryPtr trelIfTable(uint32_t ifIndex) const { return ifs_.entry(ifIndex); }
  IfEntryPtr trelIfTableIs(uint32_t ifIndex, uint32_t localMemberId, uint32_t remoteMemberId) {
    return ifs_.is(ifIndex, localMemberId, remoteMemberId);
  }
  IfEntryPtr trelIfTableDel(uint32_t ifIndex) { return ifs_.del(ifIndex); }
  IfEntryPtr trelIfTableDel(const TrelIfTable::Cursor& iterator) { return ifs_.del(iterator); }
  void trelIfTableDelAll() { ifs_.delAll(); }

  using ReachabilityEntryPtr = Zavro::Ptr<const TrelReachabilityEntry>;
  const TrelReachabilityTable& trelReachabilityTable() const { return reachability_.table(); }
  ReachabilityEntryPtr trelReachabilityTable(const MemberIdPair& key) const {
    return reachability_.entry(key);
  }
  ReachabilityEntryPtr trelReachabilityTableIs(const MemberIdPair& key,
                                               const TrelReachabilityEntry::State& state,
                                               const TrelReachabilityEntry::IfMib& ifMib) {
    return reachability_.is(key, state, ifMib);
  }
  ReachabilityEntryPtr trelReachabilityTableDel(const MemberIdPair& key) { return reachability_.del(key); }
  ReachabilityEntryPtr trelReachabilityTableDel(const TrelReachabilityTable::Cursor& iterator) {
    return reachability_.del(iterator);
  }
  void trelReachabilityTableDelAll() { reachability_.delAll(); }

  using HrSystemEntryPtr = Zavro::Ptr<const TrelHrSystemEntry>;
  const TrelHrSystemTable& trelHrSystemTable() const { return systems_.table(); }
  HrSystemEntryPtr trelHrSystemTable(uint32_t trelMemberId) const { return systems_.entry(trelMemberId); }
  HrSystemEntryPtr trelHrSystemTableIs(uint32_t trelMemberId, const TrelHrSystemEntry::Host& host) {
    return systems_.is(trelMemberId, host);
  }
  HrSystemEntryPtr trelHrSystemTableDel(uint32_t trelMemberId) { return systems_.del(trelMemberId); }
  HrSystemEntryPtr trelHrSystemTableDel(const TrelHrSystemTable::Cursor& iterator) {
    return systems_.del(iterator);
  }
  void trelHrSystemTableDelAll() { systems_.delAll(); }

  using ProcessorEntryPtr = Zavro::Ptr<const TrelProcessorEntry>;
  const TrelProcessorTable& trelProcessorTable() const { return processors_.table(); }
  ProcessorEntryPtr trelProcessorTable(const ProcessorKey& key) const { return processors_.entry(key); }
  ProcessorEntryPtr trelProcessorTableIs(const ProcessorKey& key,
                                         const TrelProcessorEntry::Processor& processor) {
    return processors_.is(key, processor);
  }
  ProcessorEntryPtr trelProcessorTableDel(const ProcessorKey& key) { return processors_.del(key); }
  ProcessorEntryPtr trelProcessorTableDel(const TrelProcessorTable::Cursor& iterator) {
    return processors_.del(iterator);
  }
  void trelProcessorTableDelAll() { processors_.delAll(); }

  using HrStorageEntryPtr = Zavro::Ptr<const TrelHrStorageEntry>;
  const TrelHrStorageTable& trelHrStorageTable() const { return storage_.table(); }
  HrStorageEntryPtr trelHrStorageTable(const TrelHrStorageKey& key) const { return storage_.entry(key); }
  // Files the entry under its own key.
  HrStorageEntryPtr trelHrStorageTableIs(const HrStorageEntryPtr& entry) { return storage_.is(entry); }
  HrStorageEntryPtr trelHrStorageTableDel(const TrelHrStorageKey& key) { return storage_.del(key); }
  HrStorageEntryPtr trelHrStorageTableDel(const TrelHrStorageTable::Cursor& iterator) {
    return storage_.del(iterator);
  }
  void trelHrStorageTableDelAll() { storage_.delAll(); }

  static const Kor::Type& type();
  const Kor::Type& korType() const override { return type(); }

 private:
  TablePublisher publisher_;
  PublishedTable<TrelIfTable> ifs_{"trelIfTable", publisher_};
  PublishedTable<TrelReachabilityTable> reachability_{"trelReachabilityTable", publisher_};
  PublishedTable<TrelHrSystemTable> systems_{"trelHrSystemTable", publisher_};
  PublishedTable<TrelProcessorTable> processors_{"trelProcessorTable", publisher_};
  PublishedTable<TrelHrStorageTable> storage_{"trelHrStorageTable", publisher_};
};

Zavro::Ptr<TrelMib> trelMibFactory(const Kor::String& name);
inline constexpr auto TrelMibIs = &trelMibFactory;

}  // namespace TrelSnmp
