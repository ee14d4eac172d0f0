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
  // Elements lie side by side: walks over tens of thousands of them are what some changes cost.
  using Map = absl::btree_map<KeyType, ValueType, std::less<>>;

 public:
  using Key = KeyType;
  using Value = ValueType;

  // A position that stays usable whatever happens to the collection: next() goes to the first element whose
  // key is greater than the key it stood at, which may be gone by then. The collection must outlive it.
  class Cursor {
   public:
    explicit operator bool() const { return valid_; }
    const Key& key() const { return key_; }  // Requires: *this is true.
    // The value under the key now, or null when the element is gone. The pointer lives until the collection
    // changes.
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

  // The value under the key, or null. The pointer lives until the collection changes.
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

  // Puts the value under the key, replacing one that is there, and notifies, even when the value is the same.
  void set(const Key& key, Value value) {
    Publication::expectNone();
    // The key may live in the value that goes; that one is destroyed last, by when all is in order.
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

  // The callback gets the key of the element that appeared, changed or vanished.
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
