// From what happens to keys to what happens to the state. A value that cannot be used is set aside: the last
// good one of its path stays, and every other key is taken as if nothing were wrong.
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

// A line for the log, in the levels of traces.
struct Line {
  int level = 0;
  std::string text;
  std::string key{};  // that it is about; empty when about none
};

class Decoder {
 public:
  // More lines than this at a time are counted only.
  static constexpr size_t kMaxLines = 20;

  Decoder(KeySpace keys, const Limits& limits) : keys_(std::move(keys)), limits_(limits) {}

  struct Decoded {
    std::vector<Snapshot::Change> changes;   // sorted, no path twice
    std::map<std::string, int64_t> members;  // whose keys changed; the lease of what they put, or 0
    std::set<Path> unusable;                 // at which there is something that cannot be used
  };
  // What becomes of the state.
  Decoded decode(std::vector<Change> changes);
  // What there is to tell of the changes since it was taken last. What goes on being wrong is not told again.
  std::vector<Line> takeLines();

  // How many keys there are whose values, or names, cannot be used.
  size_t setAsideCount() const { return setAside_.size() + setAsideToo_.size(); }
  // Those of them that are remembered, and what is wrong with them, in one line.
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
  std::set<size_t> setAsideToo_;  // hashes of the keys that there is no place for
  std::map<std::string, std::string>
      warned_;  // the last warning on a key's value, as far as there is a place
  std::vector<Line> lines_;
  size_t untold_ = 0;
};

}  // namespace Kelstore::Etcd
