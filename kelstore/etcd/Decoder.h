// From what happens to keys to what happens to the state. A value that cannot be used is set aside: the last
// good one of its path stays, and every other key is taken as if nothing were wrong.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "kelstore/Snapshot.h"
#include "kelstore/etcd/Keys.h"
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

  explicit Decoder(Keys keys) : keys_(std::move(keys)) {}

  struct Decoded {
    std::vector<Snapshot::Change> changes;   // sorted, no path twice
    std::map<std::string, int64_t> members;  // whose keys changed; the lease of what they put, or 0
  };
  // What becomes of the state.
  Decoded decode(std::vector<Change> changes);
  // What there is to tell of the changes since it was taken last. What goes on being wrong is not told again,
  // and of keys that are not of the state model only the first is.
  std::vector<Line> takeLines();

  // The keys whose values, or names, cannot be used, and what is wrong with them, in one line.
  const std::map<std::string, std::string>& setAside() const { return setAside_; }

 private:
  std::optional<Value> valueOf(const std::string& key, const Path& path, const std::string& text);
  void isWrong(const std::string& key, std::string what);
  void tell(int level, const std::string& key, std::string_view what);

  Keys keys_;
  std::map<std::string, std::string> setAside_;
  std::map<std::string, std::string> warned_;  // the last warning on a key's value
  std::vector<Line> lines_;
  size_t untold_ = 0;
  bool toldOfForeignKey_ = false;
};

}  // namespace Kelstore::Etcd
