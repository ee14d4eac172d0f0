// All that one source says at one time: values by path, sorted. Immutable once shared; sources hand snapshots
// to the store, and may make them on another thread.
#pragma once

#include <string_view>
#include <utility>
#include <vector>

#include "Path.h"
#include "Value.h"

namespace Kelstore {

class Snapshot {
 public:
  using Entry = std::pair<Path, Value>;

  Snapshot() = default;
  // Requires: no path occurs twice.
  explicit Snapshot(std::vector<Entry> entries);

  const std::vector<Entry>& entries() const { return entries_; }
  size_t size() const { return entries_.size(); }
  // The value at the path, or null.
  const Value* find(const Path& path) const;
  // Whether there is a value of that kind whose path's first variable segment is `first`.
  bool any(Kind kind, std::string_view first) const;

 private:
  std::vector<Entry> entries_;
};

// The paths at which the two differ, sorted.
std::vector<Path> differences(const Snapshot& before, const Snapshot& after);

}  // namespace Kelstore
