// The keys under which a store holds the state. Each value has one: the prefix and the path's segments, with
// "/" between them. In a segment every byte but letters, digits, "-", ".", "_" and "~" is percent-encoded, so
// that a mount point is one segment (`trel/members/1/storage/%2Fvar%2Flog`).
//
// A container (`members/1/processors`) has no key of its own: it is there while a key below it is. On any
// thread.
#pragma once

#include <absl/status/statusor.h>

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kelstore/Limits.h"
#include "kelstore/Path.h"
#include "kelstore/etcd/KeyTable.h"

namespace Kelstore::Etcd {

// A key range as etcd takes it: from `first` up to, not including, `end`.
struct KeyRange {
  std::string first;
  std::string end;
};

class KeySpace {
 public:
  // prefix: without a slash at its end.
  explicit KeySpace(std::string prefix) : prefix_(std::move(prefix)) {}

  // Requires: the path is no container's.
  std::string key(const Path& path) const { return key(path.segments()); }
  std::string key(std::span<const std::string> segments) const;

  // All keys under the prefix.
  KeyRange all() const { return below({}); }
  // The keys below these segments, without the key of the segments themselves.
  KeyRange below(std::span<const std::string> segments) const;

  // The path of the key's value. NotFound: the state has no such path, and the key is to be ignored.
  // InvalidArgument: a segment is not allowed there, or is not spelt as key() spells it. Such a key must not
  // be used, since its path has another key. The message is one line that begins with the path, as far as it
  // is known.
  absl::StatusOr<Path> path(std::string_view key) const;

  // The mark of a member that gives back its lease: it is put under the lease first, so that whoever follows
  // the keys can tell from the end of the lease that the member meant it. It is no key of the state.
  std::string leavingKey(uint8_t member) const;
  bool isLeavingKey(std::string_view key) const;

  // The groups of keys for KeyTable: keys whose paths differ in the last segment only. No key is held that is
  // not of the state, but marks are; of misspelt keys some are, to be shown.
  KeyTable::GroupOf groups(const Limits& limits) const;

 private:
  std::string prefix_;
};

// The names of the groups of keys that are not of the state, are too long, or are misspelt.
inline constexpr const char* kForeignKeys = "";
inline constexpr const char* kLongKeys = "keys that are too long";
inline constexpr const char* kMisspeltKeys = "keys in another spelling";

// A segment as it is spelt within a key.
std::string encodedSegment(std::string_view segment);
// The reverse, for segments with "/" between them. InvalidArgument as above.
absl::StatusOr<std::vector<std::string>> segmentsOf(std::string_view text);

}  // namespace Kelstore::Etcd
