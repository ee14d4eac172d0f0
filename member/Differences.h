// What to write so that the store holds this member's content. Functions without I/O.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "member/LeaseStore.h"

namespace Member {

// All values to be published, as JSON.
using Content = std::map<Kelstore::Path, std::string>;

// The leases whose keys may be changed.
struct Owners {
  LeaseStore::Lease self = LeaseStore::kNoLease;
  // Those of earlier publishers, and those that this one had before.
  std::set<LeaseStore::Lease> predecessors = {};

  bool are(LeaseStore::Lease lease) const { return lease == self || predecessors.contains(lease); }
};

// The leases other than `self` of keys that only a publisher of this member writes.
std::set<LeaseStore::Lease> otherLeases(const LeaseStore::Holdings& holdings, LeaseStore::Lease self);

// Whether it is the key of an interface under somebody else's lease.
bool isForeign(const Kelstore::Path& path, const LeaseStore::Holdings& holdings, const Owners& owners);

// The changes after which the store holds the content under `self`'s lease. Foreign keys are left alone.
// First is the key that preconditions() compares, if it is among them: the first of several transactions
// changes it, so that the publisher that wrote it is refused from then on.
std::vector<LeaseStore::Change> differences(const Content& content, const LeaseStore::Holdings& holdings,
                                            const Owners& owners);

// A key of this member, under `self`'s lease, to be written as it is; nothing if there is none.
std::optional<LeaseStore::Change> proof(const Content& content, LeaseStore::Lease self,
                                        const LeaseStore::Holdings& holdings);

// What must be true for the changes: one key of this member, the one that this publisher wrote last if there
// is one, is as it was, so that they fail if another publisher has written or the store was restored; if
// there is no key of this member, none that is to be written is there; and the keys of interfaces among the
// changes are as they were. At most one more than there are changes.
std::vector<LeaseStore::Precondition> preconditions(const std::vector<LeaseStore::Change>& changes,
                                                    const LeaseStore::Holdings& holdings,
                                                    LeaseStore::Lease self);

}  // namespace Member
