// One ordered table of the MIB state object: a balanced tree of the rows themselves. PublishedTable is its
// only writer.
#pragma once

#include <boost/intrusive/set.hpp>
#include <cstdint>

#include "platform/zavro/Ptr.h"

namespace TrelSnmp {

// Base of the nodes of a table's tree. A row may outlive its removal: whoever holds it keeps it alive.
using TableHook = boost::intrusive::set_base_hook<boost::intrusive::optimize_size<true>>;

// Row is a counted object with a TableHook and a key(). Entry is what readers get: the row itself, or what
// the row holds.
template <class RowType, class EntryType = RowType>
class Table {
 public:
  using Row = RowType;
  using Entry = EntryType;
  using Key = typename Row::Key;
  using EntryPtr = Zavro::Ptr<const Entry>;

  // A position that stays valid while the table changes: it keeps its entry alive, and next() moves to the
  // first greater key. The table must outlive the cursor.
  class Cursor {
   public:
    Cursor() = default;
    explicit operator bool() const { return entry_ != nullptr; }  // false: past the end
    const Key& key() const { return entry_->key(); }              // Requires: *this is true.
    const EntryPtr& entry() const { return entry_; }
    const Table* table() const { return table_; }
    uint32_t version() const { return static_cast<uint32_t>(changes_); }  // the table's, at the last move

    // Requires: *this is true.
    void next() {
      const Row* row = changes_ == table_->changes_ ? table_->successor(*row_) : table_->upperBound(key());
      moveTo(row);
    }

   private:
    friend class Table;
    Cursor(const Table& table, const Row* row) : table_(&table) { moveTo(row); }
    void moveTo(const Row* row) {
      row_ = row;
      entry_ = row != nullptr ? entryOf(*row) : nullptr;
      changes_ = table_->changes_;
    }

    const Table* table_ = nullptr;
    const Row* row_ = nullptr;  // valid while changes_ is the table's
    EntryPtr entry_;
    uint64_t changes_ = 0;
  };

  Table() = default;
  Table(const Table&) = delete;
  Table& operator=(const Table&) = delete;
  ~Table() {
    while (!tree_.empty()) unlink(*tree_.begin());
  }

  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  // Advances with every insertion and every removal of a row; wraps. Replacing an entry is neither.
  uint32_t version() const { return static_cast<uint32_t>(changes_); }

  Cursor begin() const { return Cursor(*this, tree_.empty() ? nullptr : &*tree_.begin()); }
  // At the first key not less than key.
  Cursor lowerBoundCursor(const Key& key) const {
    return Cursor(*this, rowAt(tree_.lower_bound(key, KeyOrder())));
  }
  // At the first key greater than key.
  Cursor upperBoundCursor(const Key& key) const { return Cursor(*this, upperBound(key)); }
  // At that key, or past the end when there is no such row.
  Cursor cursorAt(const Key& key) const { return Cursor(*this, find(key)); }

  // The row under the key, or null. It lives until the table changes.
  const Row* find(const Key& key) const { return rowAt(tree_.find(key, KeyOrder())); }

 private:
  template <class>
  friend class PublishedTable;

  struct KeyOrder {
    // Used by the set's assertions only.
    bool operator()(const Row& a, const Row& b) const { return a.key() < b.key(); }
    bool operator()(const Key& a, const Row& b) const { return a < b.key(); }
    bool operator()(const Row& a, const Key& b) const { return a.key() < b; }
  };
  using Tree = boost::intrusive::set<Row, boost::intrusive::compare<KeyOrder>,
                                     boost::intrusive::constant_time_size<false>>;

  static EntryPtr entryOf(const Row& row) {
    if constexpr (std::is_same_v<Row, Entry>) {
      return EntryPtr(&row);
    } else {
      return row.entry();
    }
  }
  const Row* rowAt(typename Tree::const_iterator at) const { return at == tree_.end() ? nullptr : &*at; }
  const Row* upperBound(const Key& key) const { return rowAt(tree_.upper_bound(key, KeyOrder())); }
  const Row* successor(const Row& row) const { return rowAt(std::next(tree_.iterator_to(row))); }

  Row* findForUpdate(const Key& key) {
    auto found = tree_.find(key, KeyOrder());
    return found == tree_.end() ? nullptr : &*found;
  }

  // The row under a key, or the position to insert one. Valid until the table changes. Scans go through keys
  // in order: a key that comes right after the last one written takes no search.
  struct Place {
    Row* row;  // null when there is none
    typename Tree::insert_commit_data where;
  };
  Place placeOf(const Key& key) {
    Place place{};
    if (next_ != tree_.end() && next_->key() == key) {
      place.row = &*next_;
      return place;
    }
    auto [found, absent] = tree_.insert_check(next_, key, KeyOrder(), place.where);
    if (!absent) place.row = &*found;
    return place;
  }

  // Requires: place is that of the row's key, and has no row. The tree owns one reference to each row.
  void link(Zavro::Ptr<Row> row, const Place& place) {
    next_ = std::next(tree_.insert_commit(*row.detach(), place.where));
    ++size_;
    ++changes_;
  }
  Zavro::Ptr<Row> unlink(Row& row) {
    next_ = tree_.erase(tree_.iterator_to(row));
    --size_;
    ++changes_;
    return Zavro::Ptr<Row>(&row, /*add_ref=*/false);
  }

  Tree tree_;
  typename Tree::iterator next_ = tree_.end();  // after the last row that was inserted or removed
  size_t size_ = 0;
  uint64_t changes_ = 0;  // 64 bits: a wrap would make a cursor's row_ look valid
};

}  // namespace TrelSnmp
