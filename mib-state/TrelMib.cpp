#include "mib-state/TrelMib.h"

#include "platform/kor/Publication.h"

namespace TrelSnmp {
namespace {

constexpr std::string_view kTrelIfTable = "trelIfTable";
constexpr std::string_view kTrelReachabilityTable = "trelReachabilityTable";
constexpr std::string_view kTrelHrSystemTable = "trelHrSystemTable";
constexpr std::string_view kTrelProcessorTable = "trelProcessorTable";
constexpr std::string_view kTrelHrStorageTable = "trelHrStorageTable";

}  // namespace

void TrelMib::publish(const Change& change) {
  Kor::Publication publication;
  publisher_.notify(change);
}

template <class TableType>
typename TableType::EntryPtr TrelMib::entryUnder(const TableType& table, const typename TableType::Key& key) {
  auto* row = table.find(key);
  return row != nullptr ? TableType::entryOf(*row) : nullptr;
}

template <class TableType, class... Fields>
typename TableType::EntryPtr TrelMib::strictIs(std::string_view name, TableType& table,
                                               const typename TableType::Key& key, const Fields&... fields) {
  using Row = typename TableType::Row;
  auto place = table.placeOf(key);
  if (place.row != nullptr) {
    if (const char* attribute = place.row->differsFrom(fields...)) {
      throw Kor::MutatorReinstantiationException(Row::type().name(), attribute);
    }
    return place.row;
  }
  Zavro::Ptr<Row> row = Zavro::makePtr<Row>(key, fields...);
  table.link(row, place);
  publish({name, row->key(), row});
  return row;
}

// The key is taken by value: it may be that of the very row that goes.
template <class TableType>
typename TableType::EntryPtr TrelMib::del(std::string_view name, TableType& table,
                                          typename TableType::Key key) {
  auto* row = table.findForUpdate(key);
  if (row == nullptr) return nullptr;
  typename TableType::EntryPtr entry = TableType::entryOf(*row);
  table.unlink(*row);
  publish({name, key, nullptr});
  return entry;
}

template <class TableType>
typename TableType::EntryPtr TrelMib::delAt(std::string_view name, TableType& table,
                                            const typename TableType::Cursor& iterator) {
  return iterator ? del(name, table, iterator.key()) : nullptr;
}

template <class TableType>
void TrelMib::delAll(std::string_view name, TableType& table) {
  for (auto row = table.begin(); row; row.next()) delAt(name, table, row);
}

Zavro::Ptr<const TrelIfEntry> TrelMib::trelIfTable(uint32_t ifIndex) const {
  return entryUnder(trelIfTable_, ifIndex);
}

Zavro::Ptr<const TrelIfEntry> TrelMib::trelIfTableIs(uint32_t ifIndex, uint32_t localMemberId,
                                                     uint32_t remoteMemberId) {
  return strictIs(kTrelIfTable, trelIfTable_, ifIndex, localMemberId, remoteMemberId);
}

Zavro::Ptr<const TrelIfEntry> TrelMib::trelIfTableDel(uint32_t ifIndex) {
  return del(kTrelIfTable, trelIfTable_, ifIndex);
}

Zavro::Ptr<const TrelIfEntry> TrelMib::trelIfTableDel(const TrelIfTable::Cursor& iterator) {
  return delAt(kTrelIfTable, trelIfTable_, iterator);
}

void TrelMib::trelIfTableDelAll() { delAll(kTrelIfTable, trelIfTable_); }

Zavro::Ptr<const TrelReachabilityEntry> TrelMib::trelReachabilityTable(const MemberIdPair& key) const {
  return entryUnder(trelReachabilityTable_, key);
}

Zavro::Ptr<const TrelReachabilityEntry> TrelMib::trelReachabilityTableIs(const MemberIdPair& key,
                                                                         TrelReachabilityEntry::State state,
                                                                         TrelReachabilityEntry::IfMib ifMib) {
  return strictIs(kTrelReachabilityTable, trelReachabilityTable_, key, state, ifMib);
}

Zavro::Ptr<const TrelReachabilityEntry> TrelMib::trelReachabilityTableDel(const MemberIdPair& key) {
  return del(kTrelReachabilityTable, trelReachabilityTable_, key);
}

Zavro::Ptr<const TrelReachabilityEntry> TrelMib::trelReachabilityTableDel(
    const TrelReachabilityTable::Cursor& iterator) {
  return delAt(kTrelReachabilityTable, trelReachabilityTable_, iterator);
}

void TrelMib::trelReachabilityTableDelAll() { delAll(kTrelReachabilityTable, trelReachabilityTable_); }

Zavro::Ptr<const TrelHrSystemEntry> TrelMib::trelHrSystemTable(uint32_t trelMemberId) const {
  return entryUnder(trelHrSystemTable_, trelMemberId);
}

Zavro::Ptr<const TrelHrSystemEntry> TrelMib::trelHrSystemTableIs(uint32_t trelMemberId,
                                                                 TrelHrSystemEntry::Host host) {
  return strictIs(kTrelHrSystemTable, trelHrSystemTable_, trelMemberId, host);
}

Zavro::Ptr<const TrelHrSystemEntry> TrelMib::trelHrSystemTableDel(uint32_t trelMemberId) {
  return del(kTrelHrSystemTable, trelHrSystemTable_, trelMemberId);
}

Zavro::Ptr<const TrelHrSystemEntry> TrelMib::trelHrSystemTableDel(const TrelHrSystemTable::Cursor& iterator) {
  return delAt(kTrelHrSystemTable, trelHrSystemTable_, iterator);
}

void TrelMib::trelHrSystemTableDelAll() { delAll(kTrelHrSystemTable, trelHrSystemTable_); }

Zavro::Ptr<const TrelProcessorEntry> TrelMib::trelProcessorTable(const ProcessorKey& key) const {
  return entryUnder(trelProcessorTable_, key);
}

Zavro::Ptr<const TrelProcessorEntry> TrelMib::trelProcessorTableIs(const ProcessorKey& key,
                                                                   TrelProcessorEntry::Processor processor) {
  return strictIs(kTrelProcessorTable, trelProcessorTable_, key, processor);
}

Zavro::Ptr<const TrelProcessorEntry> TrelMib::trelProcessorTableDel(const ProcessorKey& key) {
  return del(kTrelProcessorTable, trelProcessorTable_, key);
}

Zavro::Ptr<const TrelProcessorEntry> TrelMib::trelProcessorTableDel(
    const TrelProcessorTable::Cursor& iterator) {
  return delAt(kTrelProcessorTable, trelProcessorTable_, iterator);
}

void TrelMib::trelProcessorTableDelAll() { delAll(kTrelProcessorTable, trelProcessorTable_); }

Zavro::Ptr<const TrelHrStorageEntry> TrelMib::trelHrStorageTable(const TrelHrStorageKey& key) const {
  return entryUnder(trelHrStorageTable_, key);
}

Zavro::Ptr<const TrelHrStorageEntry> TrelMib::trelHrStorageTableIs(
    Zavro::Ptr<const TrelHrStorageEntry> entry) {
  if (!entry) throw Kor::NullArgumentException(kTrelHrStorageTable);
  auto place = trelHrStorageTable_.placeOf(entry->key());
  if (place.row == nullptr) {
    trelHrStorageTable_.link(Zavro::makePtr<KorTrelHrStorageTable>(entry), place);
  } else {
    if (place.row->entry() == entry) return entry;
    place.row->entryIs(entry);
  }
  publish({kTrelHrStorageTable, entry->key(), entry});
  return entry;
}

Zavro::Ptr<const TrelHrStorageEntry> TrelMib::trelHrStorageTableDel(const TrelHrStorageKey& key) {
  return del(kTrelHrStorageTable, trelHrStorageTable_, key);
}

Zavro::Ptr<const TrelHrStorageEntry> TrelMib::trelHrStorageTableDel(
    const TrelHrStorageTable::Cursor& iterator) {
  return delAt(kTrelHrStorageTable, trelHrStorageTable_, iterator);
}

void TrelMib::trelHrStorageTableDelAll() { delAll(kTrelHrStorageTable, trelHrStorageTable_); }

const Kor::Type& TrelMib::type() {
  static const auto rows = [](auto table) {
    return [table](const TrelMib& mib) { return (mib.*table).size(); };
  };
  static const Kor::Type type =
      Kor::TypeBuilder<TrelMib>("TrelSnmp::TrelMib")
          .attribute("name", &TrelMib::name)
          .attribute("trelIfTable", rows(&TrelMib::trelIfTable_))
          .attribute("trelReachabilityTable", rows(&TrelMib::trelReachabilityTable_))
          .attribute("trelHrSystemTable", rows(&TrelMib::trelHrSystemTable_))
          .attribute("trelProcessorTable", rows(&TrelMib::trelProcessorTable_))
          .attribute("trelHrStorageTable", rows(&TrelMib::trelHrStorageTable_))
          .operation("trelIfTableDelAll", &TrelMib::trelIfTableDelAll)
          .operation("trelReachabilityTableDelAll", &TrelMib::trelReachabilityTableDelAll)
          .operation("trelHrSystemTableDelAll", &TrelMib::trelHrSystemTableDelAll)
          .operation("trelProcessorTableDelAll", &TrelMib::trelProcessorTableDelAll)
          .operation("trelHrStorageTableDelAll", &TrelMib::trelHrStorageTableDelAll)
          .build();
  return type;
}

Zavro::Ptr<TrelMib> trelMibFactory(const Kor::String& name) { return Zavro::makePtr<TrelMib>(name); }

}  // namespace TrelSnmp
