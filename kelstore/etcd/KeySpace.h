// The keys under which a store holds the state: one for each value, the prefix and the path's segments with
// "/" between them. In a segment every byte but letters, digits, "-", ".", "_" and "~" is percent-encoded, so
// that a mount point is one segment (`trel/members/1/storage/%2Fvar%2Flog`).
//
// A container (`members/1/processors`) has no key of its own: it is there while a key below it is.
#pragma once

#include <absl/status/statusor.h>

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
  // The prefix without a slash at its end.
  explicit KeySpace(std::string prefix) : prefix_(std::move(prefix)) {}

  // Requires: the path is no container's.
  std::string key(const Path& path) const { return key(path.segments()); }
  std::string key(std::span<const std::string> segments) const;

  // All keys that are ours.
  KeyRange all() const { return below({}); }
  // The keys below these segments; not the key of the segments themselves.
  KeyRange below(std::span<const std::string> segments) const;

  // The path whose value stands under the key. NotFound: the state model has no such path; such a key is none
  // of our business. InvalidArgument: a segment is not what the model takes there, or is not spelt as key()
  // spells it; what stands under such a key must not count, since the same path has another key. The message
  // is one line that begins with the path, as far as it is known.
  absl::StatusOr<Path> path(std::string_view key) const;

  // Which keys count together: those beside each other. Keys that are not of the state are none at all, and
  // of those that have another spelling than they are to have, some are held to show them.
  KeyTable::GroupOf groups(const Limits& limits) const;

 private:
  std::string prefix_;
};

// The names of groups that are none of the state's: keys that have nothing to do with it, that are longer
// than is taken, and that are not spelt as they are to be.
inline constexpr const char* kForeignKeys = "";
inline constexpr const char* kLongKeys = "keys that are too long";
inline constexpr const char* kMisspeltKeys = "keys in another spelling";

// How a segment is spelt within a key.
std::string encodedSegment(std::string_view segment);
// The segments of a text in which they are spelt so, with "/" between them. InvalidArgument as above.
absl::StatusOr<std::vector<std::string>> segmentsOf(std::string_view text);

}  // namespace Kelstore::Etcd
