// What a follower knows of every key: enough to tell whether something that it hears is new. Of keys that
// count together it holds so many and no more; what is refused is counted.
#pragma once

#include <functional>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "kelstore/etcd/Messages.h"

namespace Kelstore::Etcd {

class KeyTable {
 public:
  static constexpr size_t kUnlimited = std::numeric_limits<size_t>::max();

  // Keys that count together.
  struct Group {
    std::string name;
    size_t most = kUnlimited;
  };
  using GroupOf = std::function<Group(const std::string& key)>;
  struct Refused {
    size_t keys = 0;
    size_t most = 0;      // that are held beside them
    std::string example;  // one of them
  };
  // By the group's name.
  using AllRefused = std::map<std::string, Refused>;

  // A key of which a page says something else than the table.
  struct Suspect {
    std::string key;
    std::optional<Record> found;  // nothing: the page does not have the key
    int64_t revision = 0;         // that the page was read at
  };

  // By default all keys are one group, without a limit. `most`: keys of all groups.
  explicit KeyTable(GroupOf groupOf = {}, size_t most = kUnlimited);

  size_t size() const { return keys_.known.size(); }
  // As the last listing or resync counted them, and since then each time that one came.
  const AllRefused& refused() const { return refused_; }
  // Takes over one event. False when the table has it already, or something newer, or refuses the key.
  bool put(const Record& record);
  bool del(const std::string& key, int64_t revision);

  // Takes over a whole listing, page by page, from the first key on; then the changes that lead there. One
  // that is begun anew takes the place of one that did not end.
  void listingBegins();
  void listed(std::vector<Record> page);
  std::vector<Change> listingEnds();

  // From now on until resyncEnds(), a deletion leaves a tombstone, so that a page that was read before it is
  // known to be older. A repaired deletion always does, as events from before it may still come: until
  // resyncEnds() is told that these were applied.
  void resyncBegins();
  // `complete`: all pages were compared.
  void resyncEnds(int64_t applied, bool complete);
  // The keys from `from` on, as far as the page reaches, of which it says something else. What is newer than
  // the page is none of them.
  std::vector<Suspect> compare(const std::string& from, const Page& page);
  // Whether the table still says something else.
  bool differs(const Suspect& suspect) const;
  // Takes over what the page said; nothing when the key is refused.
  std::optional<Change> repair(Suspect suspect);

 private:
  struct Known {
    int64_t modRevision = 0;
    int64_t lease = 0;
    size_t valueHash = 0;
    bool operator==(const Known&) const = default;
  };
  // Keys, and how many of each group there are.
  struct Keys {
    std::map<std::string, Known> known;
    std::unordered_map<std::string, size_t> sizes;
  };
  static Known knownOf(const Record& record);
  static Change changeOf(Record record);
  // Whether there is room for the key; else it is counted.
  bool admits(const Keys& keys, const std::string& key, const Group& group, AllRefused& refused) const;
  bool add(Keys& keys, const Record& record, AllRefused& refused) const;
  void remove(std::map<std::string, Known>::iterator key);
  bool deletedAfter(const std::string& key, int64_t revision) const;

  GroupOf groupOf_;
  size_t most_;
  Keys keys_;
  AllRefused refused_;
  bool resyncing_ = false;
  AllRefused resyncRefused_;                   // so far
  std::map<std::string, int64_t> tombstones_;  // the revision of each; of a repaired one, the page's

  // The listing under way.
  Keys listedKeys_;
  AllRefused listedRefused_;
  std::vector<Change> listedChanges_;
};

// The least key after this one.
inline std::string keyAfter(std::string key) { return key += '\0'; }

}  // namespace Kelstore::Etcd
