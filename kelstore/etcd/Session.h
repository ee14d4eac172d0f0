// A follower's thread: speaks gRPC with the servers, carries out what the follower wants done, and hands over
// what comes of it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "kelstore/etcd/Access.h"
#include "kelstore/etcd/Address.h"
#include "kelstore/etcd/Handover.h"
#include "platform/zavro/Clock.h"

namespace Kelstore::Etcd {

struct FollowSettings {
  Address address;
  Access access;
  uint32_t holdSeconds = 300;   // that a lost store's word counts before it is stale
  bool clearAfterHold = false;  // whether it is withdrawn then
  uint32_t auditSeconds = 60;
};

class Session {
 public:
  // Clock and handover outlive the session; they are used on the thread.
  Session(const FollowSettings& settings, const Zavro::Clock& clock, Handover& handover);
  ~Session();

  // Follows the store until stop(). On a thread of its own.
  void run();
  // Makes run() return at once, be it called already or later. On any thread, once.
  void stop();

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace Kelstore::Etcd
