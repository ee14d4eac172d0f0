// Turns changes of keys into changes of the state. A value that cannot be used is set aside: the last good
// value of its path stays, and no other key is affected.
//
// A packed form (kelstore/Packed.h) gives several values. One that it gave before and gives no more is
// withdrawn; where a part of it cannot be used, the last good value stays. While it gives a path, the path's
// own key has no effect. On the follower's thread.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "kelstore/Document.h"
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
    FaultyPlaces unusable;                   // whose values cannot be used
    // The systems among the changes. True: its packed form has a lease, so its publisher lives as long as
    // that, and writes it only now and then; uptime and date go on meanwhile.
    std::map<Path, bool> goingOn;
  };
  // What the batch does to the state, which is `before`.
  Decoded decode(Batch batch, const Snapshot& before);
  // The lines since the last call. A lasting problem has one line.
  std::vector<Line> takeLines();

  // The number of keys whose name or value cannot be used.
  size_t setAsideCount() const { return setAside_.size() + setAsideToo_.size(); }
  // Those of these keys that are remembered, and what is wrong, in one line each.
  const std::map<std::string, std::string>& setAside() const { return setAside_; }

 private:
  // A batch that is being decoded.
  struct Work {
    Decoded decoded;
    std::map<Path, std::optional<Value>> values;
    const Snapshot& before;
    bool whole = false;
  };
  void decode(Change change, Work& work);
  void take(const Path& path, Document&& document, int64_t lease, Work& work);
  void unpack(const Path& form, Document&& document, int64_t lease, Work& work);
  void ownValueIs(const Path& path, std::optional<Value> value, Work& work);
  void givenIs(const Path& path, Value value, Work& work);
  void withdrawForm(const Path& form, Work& work);
  void withdrawGiven(const Path& path, Work& work);
  std::vector<Path> givenBefore(const Path& form, const Work& work) const;
  Document documentOf(const std::string& key, const Path& path, const std::string& text);
  void noteWrong(const std::string& key, std::string what);
  void noteRight(const std::string& key);
  void noteWarning(const std::string& key, std::string warning);
  void tell(int level, const std::string& key, std::string_view what);

  KeySpace keys_;
  Limits limits_;
  std::map<Path, std::vector<Path>> given_;         // by packed form: the paths that it gives
  std::map<Path, std::optional<Value>> ownValues_;  // of these paths: what their own keys hold
  std::map<std::string, std::string> setAside_;
  std::set<size_t> setAsideToo_;               // hashes of further keys; only so many names are remembered
  std::map<std::string, std::string> warned_;  // the last warning for a key's value; of so many keys
  std::vector<Line> lines_;
  size_t untold_ = 0;
};

}  // namespace Kelstore::Etcd
