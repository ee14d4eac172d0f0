// A keyed, ordered collection of an entity: element lookup, iteration that survives changes, a change counter
// and per-key change notification.
#pragma once

#include <absl/container/btree_map.h>

#include <cstdint>
#include <utility>

#include "platform/kor/Notifier.h"
#include "platform/kor/Publication.h"

namespace Kor {

// Change counters of collections are 23 bits wide and wrap.
inline constexpr uint32_t kCollectionVersionMask = (1u << 23) - 1;

template <class KeyType, class ValueType>
class Collection {
  // A B-tree keeps elements side by side: some changes walk over tens of thousands of them.
  using Map = absl::btree_map<KeyType, ValueType, std::less<>>;

 public:
  using Key = KeyType;
  using Value = ValueType;

  // A position that stays valid while the collection changes: next() moves to the first element with a
  // greater key, also when the current element was removed. The collection must outlive the cursor.
  class Cursor {
   public:
    explicit operator bool() const { return valid_; }
    const Key& key() const { return key_; }  // Requires: *this is true.
    // The current value under key(), or null when the element was removed. Valid until the collection
    // changes. Requires: *this is true.
    const Value* value() const {
      return changes_ == collection_->changes_ ? &position_->second : collection_->find(key_);
    }
    void next() {
      position_ =
          changes_ == collection_->changes_ ? std::next(position_) : collection_->map_.upper_bound(key_);
      settle();
    }

   private:
    friend class Collection;
    Cursor(const Collection& collection, typename Map::const_iterator position)
        : collection_(&collection), position_(position) {
      settle();
    }
    void settle() {
      changes_ = collection_->changes_;
      valid_ = position_ != collection_->map_.end();
      if (valid_) key_ = position_->first;
    }

    const Collection* collection_;
    typename Map::const_iterator position_;
    Key key_{};
    uint64_t changes_ = 0;
    bool valid_ = false;
  };

  // The value under the key, or null. Valid until the collection changes.
  template <class LookupKey>
  const Value* find(const LookupKey& key) const {
    auto found = map_.find(key);
    return found == map_.end() ? nullptr : &found->second;
  }

  size_t size() const { return map_.size(); }
  bool empty() const { return map_.empty(); }

  // Advances with every set() and del(); 23 bits.
  uint32_t version() const { return static_cast<uint32_t>(changes_) & kCollectionVersionMask; }

  Cursor begin() const { return Cursor(*this, map_.begin()); }
  // From the first element whose key is not less than key.
  Cursor from(const Key& key) const { return Cursor(*this, map_.lower_bound(key)); }

  // Inserts or replaces the value under the key, and notifies, also when the value is equal.
  void set(const Key& key, Value value) {
    Publication::expectNone();
    // Copied: the key may be part of the value that is replaced. That value is destroyed on return.
    Key changedKey = key;
    auto at = map_.lower_bound(changedKey);
    if (at != map_.end() && !map_.key_comp()(changedKey, at->first)) {
      std::swap(at->second, value);
    } else {
      map_.emplace_hint(at, changedKey, std::move(value));
    }
    ++changes_;
    notifier_.notify(changedKey);
  }

  // Removes the element and notifies; does nothing when there is none. Returns whether there was one.
  bool del(const Key& key) {
    Publication::expectNone();
    auto gone = map_.extract(key);
    if (gone.empty()) return false;
    ++changes_;
    notifier_.notify(gone.key());
    return true;
  }

  // The callback gets the key of the element that was inserted, replaced or removed.
  [[nodiscard]] Subscription subscribe(typename Notifier<Key>::Callback callback) const {
    return notifier_.subscribe(std::move(callback));
  }
  size_t subscribers() const { return notifier_.subscribers(); }

 private:
  Map map_;
  uint64_t changes_ = 0;
  Notifier<Key> notifier_;
};

}  // namespace Kor
