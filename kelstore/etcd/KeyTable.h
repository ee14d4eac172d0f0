// What a follower knows of every key: enough to tell whether something that it hears is new.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "kelstore/etcd/Messages.h"

namespace Kelstore::Etcd {

class KeyTable {
 public:
  // A key of which a page says something else than the table.
  struct Suspect {
    std::string key;
    std::optional<Record> found;  // nothing: the page does not have the key
    int64_t revision = 0;         // that the page was read at
  };

  size_t size() const { return keys_.size(); }
  // Takes over one event. False when the table has it already, or something newer.
  bool put(const Record& record);
  bool del(const std::string& key, int64_t revision);
  // Takes over a whole listing; the changes that lead there.
  std::vector<Change> becomes(std::vector<Record> all);

  // From now on until deletionsForgotten(), deletions are remembered, so that a page that was read before one
  // is known to be older. Repaired ones always are, as events from before them may still come:
  // until deletionsForgotten() is told that these were applied.
  void deletionsRemembered() { remembering_ = true; }
  void deletionsForgotten(int64_t applied);
  // The keys from `from` on, as far as the page reaches, of which it says something else. What is newer than
  // the page is none of them.
  std::vector<Suspect> compare(const std::string& from, const Page& page) const;
  // Whether the table still says something else.
  bool differs(const Suspect& suspect) const;
  // Takes over what the page said.
  Change repair(Suspect suspect);

 private:
  struct Known {
    int64_t modRevision = 0;
    int64_t lease = 0;
    size_t valueHash = 0;
    bool operator==(const Known&) const = default;
  };
  static Known knownOf(const Record& record);
  bool deletedAfter(const std::string& key, int64_t revision) const;

  std::map<std::string, Known> keys_;
  bool remembering_ = false;
  std::map<std::string, int64_t> deletions_;  // the revision of each; of a repaired one, the page's
};

// The least key after this one.
inline std::string keyAfter(std::string key) { return key += '\0'; }

}  // namespace Kelstore::Etcd
