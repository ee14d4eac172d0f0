// Turns changes of keys into changes of the state. A value that cannot be used is set aside: the last good
// value of its path stays, and no other key is affected. On the follower's thread.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "kelstore/Snapshot.h"
#include "kelstore/etcd/KeySpace.h"
#include "kelstore/etcd/Messages.h"

namespace Kelstore::Etcd {

// A line for the log; levels are those of traces.
struct Line {
  int level = 0;
  std::string text;
  std::string key{};  // that it concerns; empty: none
};

class Decoder {
 public:
  // Lines in one takeLines(), at most; further ones are only counted.
  static constexpr size_t kMaxLines = 20;

  Decoder(KeySpace keys, const Limits& limits) : keys_(std::move(keys)), limits_(limits) {}

  struct Decoded {
    std::vector<Snapshot::Change> changes;   // sorted, no path twice
    std::map<std::string, int64_t> members;  // whose keys changed, with the lease of the last key put, or 0
    std::set<Path> unusable;                 // whose values cannot be used
  };
  // What the changes, in their order, do to the state.
  Decoded decode(std::vector<Change> changes);
  // The lines since the last call. A lasting problem has one line.
  std::vector<Line> takeLines();

  // The number of keys whose name or value cannot be used.
  size_t setAsideCount() const { return setAside_.size() + setAsideToo_.size(); }
  // Those of these keys that are remembered, and what is wrong, in one line each.
  const std::map<std::string, std::string>& setAside() const { return setAside_; }

 private:
  void decode(Change change, Decoded& decoded, std::map<Path, std::optional<Value>>& values);
  std::optional<Value> valueOf(const std::string& key, const Path& path, const std::string& text);
  void noteWrong(const std::string& key, std::string what);
  void noteRight(const std::string& key);
  void noteWarning(const std::string& key, std::string warning);
  void tell(int level, const std::string& key, std::string_view what);

  KeySpace keys_;
  Limits limits_;
  std::map<std::string, std::string> setAside_;
  std::set<size_t> setAsideToo_;               // hashes of further keys; only so many names are remembered
  std::map<std::string, std::string> warned_;  // the last warning for a key's value; of so many keys
  std::vector<Line> lines_;
  size_t untold_ = 0;
};

}  // namespace Kelstore::Etcd
