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
    Zavro::Ptr<Row> row = Zavro::makePtr<Row>(key, fields...);
    table_.link(row, place);
    publish(row->key(), row);
    return row;
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
  // By value: the key may be part of the row that is deleted.
  EntryPtr del(Key key) {
    auto* row = table_.findForUpdate(key);
    if (row == nullptr) return nullptr;
    EntryPtr entry = TableType::entryOf(*row);
    table_.unlink(*row);
    publish(key, nullptr);
    return entry;
  }
  EntryPtr del(const Cursor& iterator) { return iterator ? del(iterator.key()) : nullptr; }
  void delAll() {
    for (auto row = table_.begin(); row; row.next()) del(row);
  }

 private:
  void publish(const Key& key, Zavro::Ptr<const Kor::ValueEntity> entry) const {
    Kor::Publication publication;
    publisher_.notify({kName, key, std::move(entry)});
  }

  const TablePublisher& publisher_;
  TableType table_;
};

}  // namespace TrelSnmp
