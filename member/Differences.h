// What is to be written so that the store says what this member says: computed from both, without any I/O.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "member/LeaseStore.h"

namespace Member {

// All that is to be said: the values' texts.
using Content = std::map<Kelstore::Path, std::string>;

// The leases whose keys may be changed.
struct Owners {
  LeaseStore::Lease self = LeaseStore::kNoLease;
  // Of the keys that were there when `self` was granted; nothing: that is not known yet.
  std::optional<std::set<LeaseStore::Lease>> predecessors = {};

  bool are(LeaseStore::Lease lease) const {
    return lease == self || (predecessors && predecessors->contains(lease));
  }
};

// The leases, other than `self`, with which keys go that nobody but a publisher of this member writes.
std::set<LeaseStore::Lease> otherLeases(const LeaseStore::Holdings& holdings, LeaseStore::Lease self);

// Whether it is an interface's key that lives with a lease of somebody else.
bool isForeign(const Kelstore::Path& path, const LeaseStore::Holdings& holdings, const Owners& owners);

// The changes that make the store hold the content under the lease of `self`; what is foreign is left alone.
std::vector<LeaseStore::Change> differences(const Content& content, const LeaseStore::Holdings& holdings,
                                            const Owners& owners);

// What the changes stand on: the key of this member that this publisher wrote last, so that they fail when
// another publisher of this member has written, or the store is not what it was; and the interfaces' keys
// among them. At most one more than there are changes.
std::vector<LeaseStore::Precondition> preconditions(const std::vector<LeaseStore::Change>& changes,
                                                    const LeaseStore::Holdings& holdings,
                                                    LeaseStore::Lease self);

}  // namespace Member
