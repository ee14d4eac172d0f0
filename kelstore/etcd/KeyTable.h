// What the follower knows of every key: enough to decide whether an event or a page is news. Groups of keys
// have limits; keys beyond these are refused and counted. On the follower's thread.
#pragma once

#include <functional>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "kelstore/etcd/CompactKeys.h"
#include "kelstore/etcd/Messages.h"

namespace Kelstore::Etcd {

class KeyTable {
 public:
  static constexpr size_t kUnlimited = std::numeric_limits<size_t>::max();

  // Keys with a limit in common.
  struct Group {
    std::string name;
    size_t most = kUnlimited;
  };
  using GroupOf = std::function<Group(const std::string& key)>;
  struct Refused {
    size_t keys = 0;
    size_t most = 0;      // the limit that they exceed
    std::string example;  // the first of them
  };
  // By the group's name.
  using AllRefused = std::map<std::string, Refused>;

  // A key that differs between a page and the table.
  struct Suspect {
    std::string key;
    std::optional<Record> found;  // in the page; nothing: the key is not there
    int64_t revision = 0;         // of the page
  };

  // most: limit of the keys of all groups. By default all keys are one group without a limit.
  explicit KeyTable(GroupOf groupOf = {}, size_t most = kUnlimited);

  size_t size() const { return keys_.known.size(); }
  // As counted by the last listing or resync; since then, each event of a refused key counts again.
  const AllRefused& refused() const { return refused_; }
  // The key that changed last, of those that did so up to this revision; empty: there is none.
  std::string newest(int64_t revision) const;
  // Whether no history has both the record, as it was at this revision, and what is known of its key.
  bool contradicts(const Record& record, int64_t revision) const;
  // Applies an event. False, or nothing, if the table has it already, or something newer, or refuses the key.
  bool put(const Record& record);
  // The deleted key's lease.
  std::optional<int64_t> del(const std::string& key, int64_t revision);
  // Whether no key of the lease, a deleted key's, is left. To be asked after a listing or a repair.
  bool ended(int64_t lease) const { return lease != 0 && !keys_.leases.contains(lease); }

  // Applies a listing, page by page in the order of keys. listingEnds() returns the changes that lead there.
  // A new listing replaces one that did not end.
  void listingBegins();
  void listed(std::vector<Record> page);
  std::vector<Change> listingEnds();
  // Moves all that is known together in memory. To be called when what was allocated between is free, so that
  // whole pages can be given back.
  void compact() { keys_.known = CompactKeys(keys_.known); }

  // From now on until resyncEnds(), a deletion leaves a tombstone, so that an older page does not bring the
  // key back. A repaired deletion leaves one, too, since older events may still come.
  void resyncBegins();
  // The resync compares keys once more, with their values; what is refused was counted.
  void resyncGoesBack() { wentBack_ = true; }
  // complete: all pages were compared. Tombstones up to the revision `applied` are dropped.
  void resyncEnds(int64_t applied, bool complete);
  // Compares the page with the table, from the key `from` to the page's end. What the table has newer than
  // the page does not differ. Records without their values are compared without these.
  std::vector<Suspect> compare(const std::string& from, const Page& page);
  // Whether the table still differs.
  bool differs(const Suspect& suspect) const;
  // Makes the table agree with the page, which must have the value; nothing if the key is refused.
  std::optional<Change> repair(Suspect suspect);

 private:
  using Known = CompactKeys::Known;
  // Keys, and how many there are of each group and with each lease.
  struct Keys {
    CompactKeys known;
    std::unordered_map<std::string, size_t> sizes;
    std::unordered_map<int64_t, size_t> leases;

    // before: what was known of the key; nothing: it is new.
    void put(const std::string& key, const std::optional<Known>& before, const Known& now);
    void del(const std::string& key, const Known& before);
    void leaseGoes(int64_t lease);
  };
  static Known knownOf(const Record& record);
  static bool agrees(const Record& record, const Known& known);
  static Change changeOf(Record record);
  // Whether the limits allow the key; else it is counted as refused.
  bool admits(const Keys& keys, const std::string& key, const Group& group, AllRefused& refused) const;
  bool add(Keys& keys, const Record& record, AllRefused& refused) const;
  void remove(const std::string& key, const Known& known);
  bool differs(const Suspect& suspect, const std::optional<Known>& known) const;
  bool deletedAfter(const std::string& key, int64_t revision) const;

  GroupOf groupOf_;
  size_t most_;
  Keys keys_;
  AllRefused refused_;
  bool resyncing_ = false;
  bool wentBack_ = false;
  AllRefused resyncRefused_;                   // so far
  std::map<std::string, int64_t> tombstones_;  // revisions of deletions, or of the pages that showed them

  // Of the listing under way.
  Keys listedKeys_;
  AllRefused listedRefused_;
  std::vector<Change> listedChanges_;
};

// The least key after this one.
inline std::string keyAfter(std::string key) { return key += '\0'; }

}  // namespace Kelstore::Etcd
