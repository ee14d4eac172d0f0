// What a store holds, as a state document, and what it takes to make it hold another. No I/O.
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
  // Keys that hold no value of the state model: the key, and a line that says why. The keys that have another
  // spelling, and those of values that cannot be read, count as what the store says of the state; others are
  // none of our business.
  std::vector<std::pair<std::string, std::string>> setAside;
  std::vector<std::pair<std::string, std::string>> foreign;
  std::vector<std::string> warnings;  // members of values that the state model does not have
};

StoreContent contentOf(const Kelstore::Etcd::KeySpace& keys, const Kelstore::Etcd::Listing& listing);

struct Difference {
  std::vector<Kelstore::Etcd::Op> ops;
  size_t written = 0;
  size_t deleted = 0;
  size_t unchanged = 0;
};

// What makes the store hold these values; with `replace`, and nothing else of the state. Values are written
// in the order of their paths, so that what rows are computed from is there first; what goes, goes after
// that.
Difference differenceOf(const Kelstore::Etcd::KeySpace& keys, const StoreContent& now, const Values& wanted,
                        bool replace);

// The operations in as many transactions as it takes: at most `maxOps` and about `maxBytes` each.
std::vector<std::vector<Kelstore::Etcd::Op>> transactionsOf(std::vector<Kelstore::Etcd::Op>&& ops,
                                                            size_t maxOps, size_t maxBytes);

}  // namespace TrelCtl
