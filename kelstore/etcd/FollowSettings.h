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
  uint32_t holdSeconds = 300;   // that a lost store's word counts before it is stale
  bool clearAfterHold = false;  // whether it is withdrawn then
  uint32_t resyncSeconds = 60;
  Limits limits = {};
};

}  // namespace Kelstore::Etcd
