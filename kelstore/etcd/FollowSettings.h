// How a store is followed.
#pragma once

#include <cstdint>

#include "kelstore/Limits.h"
#include "kelstore/etcd/Access.h"
#include "kelstore/etcd/Address.h"

namespace Kelstore::Etcd {

struct FollowSettings {
  Address address = {};
  Access access = {};
  uint32_t holdSeconds = 300;   // until a lost store is stale
  bool clearAfterHold = false;  // whether its values are withdrawn then
  uint32_t resyncSeconds = 60;  // from the end of a resync to the next
  uint32_t graceSeconds = 5;    // for which the keys of a lease that ended by itself still count
  Limits limits = {};
  uint64_t place = 0;  // the follower's number among all: where it begins, and when it audits (Endpoints.h)
};

}  // namespace Kelstore::Etcd
