// All values of one source at one time, sorted by path. Immutable, so it may be passed between threads.
//
// Snapshots share chunks of values. A snapshot that differs from another in a few values costs little more
// than the chunks with these values, however large it is.
#pragma once

#include <deque>
#include <iterator>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "kelstore/Path.h"

namespace Kelstore {

class Snapshot {
 public:
  using Entry = std::pair<Path, Value>;
  using Change = std::pair<Path, std::optional<Value>>;  // nothing: no value any more
  static constexpr size_t kMaxChunk = 256;               // values

 private:
  using Chunk = std::vector<Entry>;  // never empty
  using Chunks = std::vector<std::shared_ptr<const Chunk>>;

 public:
  class const_iterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = Entry;
    using difference_type = std::ptrdiff_t;
    using pointer = const Entry*;
    using reference = const Entry&;

    const_iterator() = default;
    reference operator*() const { return (**chunk_)[at_]; }
    pointer operator->() const { return &**this; }
    const_iterator& operator++() {
      if (++at_ == (*chunk_)->size()) {
        ++chunk_;
        at_ = 0;
      }
      return *this;
    }
    const_iterator operator++(int) {
      const_iterator before = *this;
      ++*this;
      return before;
    }
    bool operator==(const const_iterator&) const = default;

   private:
    friend class Snapshot;
    const_iterator(Chunks::const_iterator chunk, size_t at) : chunk_(chunk), at_(at) {}
    Chunks::const_iterator chunk_;
    size_t at_ = 0;
  };

  Snapshot() = default;
  // Requires: no path occurs twice.
  explicit Snapshot(std::vector<Entry> entries);
  // The same. Frees the deque piece by piece, so that there are never two copies of all values.
  explicit Snapshot(std::deque<Entry> entries);

  // In the order of their paths.
  const_iterator begin() const { return {chunks_.begin(), 0}; }
  const_iterator end() const { return {chunks_.end(), 0}; }
  size_t size() const { return size_; }
  // The value at the path, or null.
  const Value* find(const Path& path) const;
  // Whether there is a value of that kind whose path's first variable segment is `first`.
  bool any(Kind kind, std::string_view first) const;
  // Whether there is a value of the member's own.
  bool anyOfMember(std::string_view member) const;
  // Calls visit(path, value) for each value of the kind.
  template <class Visit>
  void forEach(Kind kind, Visit visit) const {
    for (auto at = from(kind); at != end() && at->first.kind == kind; ++at) visit(at->first, at->second);
  }

  // A copy with these changes. `changed` becomes the paths at which the two differ, sorted. Requires: the
  // changes are sorted by path, and no path occurs twice.
  Snapshot with(std::vector<Change> changes, std::vector<Path>& changed) const;

 private:
  // The first entry for which before(entry, key) does not hold.
  template <class Key, class Before>
  const_iterator lowerBound(const Key& key, Before before) const;
  const_iterator from(Kind kind) const;
  template <class Entries>
  void append(Entries entries);

  Chunks chunks_;
  size_t size_ = 0;
};

// The paths at which the two differ, sorted.
std::vector<Path> differences(const Snapshot& before, const Snapshot& after);

}  // namespace Kelstore
