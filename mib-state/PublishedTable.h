// A table of the MIB state object, to be written: every change is published. The rules of insertion and
// removal are at the top of TrelMib.h.
#pragma once

#include <string_view>

#include "mib-state/Entries.h"
#include "platform/kor/Notifier.h"
#include "platform/kor/Publication.h"

namespace TrelSnmp {

struct TableChange {
  std::string_view table;  // attribute name, such as "trelIfTable"
  RowKey key;
  Zavro::Ptr<const Kor::ValueEntity> entry;  // the new row; null for a removal
};
using TablePublisher = Kor::Notifier<TableChange>;

template <class TableType>
class PublishedTable {
 public:
  using Row = typename TableType::Row;
  using Key = typename TableType::Key;
  using EntryPtr = typename TableType::EntryPtr;
  using Cursor = typename TableType::Cursor;

  static constexpr const char* kName = Row::kTable;

  explicit PublishedTable(const TablePublisher& publisher) : publisher_(publisher) {}

  const TableType& table() const { return table_; }
  // The entry under the key, or null.
  EntryPtr entry(const Key& key) const { return table_.cursorAt(key).entry(); }

  // Inserts a row with these fields. A row that is there already must have the same fields, and stays.
  template <class... Fields>
  EntryPtr is(const Key& key, const Fields&... fields) {
    auto place = table_.placeOf(key);
    if (place.row != nullptr) {
      if (const char* attribute = place.row->differsFrom(fields...)) {
        throw Kor::MutatorReinstantiationException(Row::type().name(), attribute);
      }
      return place.row;
    }
    return insert(key, place, fields...);
  }
  // The same, but a row with other fields is deleted first.
  template <class... Fields>
  void write(const Key& key, const Fields&... fields) {
    auto place = table_.placeOf(key);
    if (place.row != nullptr) {
      if (place.row->differsFrom(fields...) == nullptr) return;
      del(*place.row);
      place = table_.placeOf(key);
    }
    insert(key, place, fields...);
  }
  // Inserts the entry under its own key, or replaces the one that is there.
  EntryPtr is(const EntryPtr& entry) {
    if (!entry) throw Kor::NullArgumentException(kName);
    auto place = table_.placeOf(entry->key());
    if (place.row == nullptr) {
      table_.link(Zavro::makePtr<Row>(entry), place);
    } else {
      if (place.row->entry() == entry) return entry;
      place.row->entryIs(entry);
    }
    publish(entry->key(), entry);
    return entry;
  }
  EntryPtr del(const Key& key) {
    auto* row = table_.findForUpdate(key);
    return row != nullptr ? del(*row) : nullptr;
  }
  EntryPtr del(const Cursor& iterator) { return iterator ? del(iterator.key()) : nullptr; }
  void delAll() {
    for (auto row = table_.begin(); row; row.next()) del(row);
  }

 private:
  template <class Place, class... Fields>
  EntryPtr insert(const Key& key, const Place& place, const Fields&... fields) {
    Zavro::Ptr<Row> row = Zavro::makePtr<Row>(key, fields...);
    table_.link(row, place);
    publish(row->key(), row);
    return row;
  }

  EntryPtr del(Row& row) {
    EntryPtr entry = TableType::entryOf(row);
    Zavro::Ptr<Row> gone = table_.unlink(row);
    publish(gone->key(), nullptr);
    return entry;
  }

  template <class Entry>
  void publish(const Key& key, const Entry& entry) const {
    Kor::Publication publication;
    if (publisher_.subscribers() != 0) publisher_.notify({kName, key, entry});
  }

  const TablePublisher& publisher_;
  TableType table_;
};

}  // namespace TrelSnmp
