// From a store's keys to values, and from wanted values to the changes of a store. No I/O.
#pragma once

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "kelstore/Document.h"
#include "kelstore/Path.h"
#include "kelstore/etcd/Calls.h"
#include "kelstore/etcd/KeySpace.h"

namespace TrelCtl {

using Kelstore::Values;

struct StoreContent {
  Values values;
  // The keys of packed forms, and the paths whose values they give.
  std::map<std::string, std::vector<Kelstore::Path>> packed;
  std::set<Kelstore::Path> hidden;  // of these, those that have a key of their own, too
  // Keys without a usable value, and the reason. Set aside: keys of the state model that are misspelt or
  // whose value cannot be used. Foreign: keys that the state model does not have; they are left alone.
  std::vector<std::pair<std::string, std::string>> setAside;
  std::vector<std::pair<std::string, std::string>> foreign;
  std::vector<std::string> warnings;  // unknown members of values
};

StoreContent contentOf(const Kelstore::Etcd::KeySpace& keys, const Kelstore::Etcd::Listing& listing);

// Whether a member publishes this key itself, with a lease. The others belong to the whole cluster.
bool isOfMember(const Kelstore::Etcd::KeySpace& keys, const std::string& key);
// Leaves what belongs to the whole cluster.
void leaveOutMembers(const Kelstore::Etcd::KeySpace& keys, StoreContent& content);

// The keys that are the member's own: those below its id, and the interfaces that its links and reports name,
// and no other member's.
std::vector<std::string> keysOfMember(const Kelstore::Etcd::KeySpace& keys,
                                      const Kelstore::Etcd::Listing& listing, uint8_t member);

struct Difference {
  std::vector<Kelstore::Etcd::Op> ops;
  size_t written = 0;
  size_t deleted = 0;
  size_t unchanged = 0;
};

// The operations that write these values; with `replace`, also those that delete all others and what was set
// aside. Values come in the order of paths, so that what others depend on is there first; deletions come
// last. A packed form that is to give something else is deleted, and its values are written by themselves.
Difference differenceOf(const Kelstore::Etcd::KeySpace& keys, const StoreContent& now, const Values& wanted,
                        bool replace);

// Splits the operations into transactions of at most `maxOps` and `maxBytes`. A single larger operation has
// one of its own.
std::vector<std::vector<Kelstore::Etcd::Op>> transactionsOf(std::vector<Kelstore::Etcd::Op>&& ops,
                                                            size_t maxOps, size_t maxBytes);

}  // namespace TrelCtl
