// A follower's thread: speaks gRPC with the servers, carries out what the follower wants done, and hands over
// what comes of it.
#pragma once

#include <memory>

#include "kelstore/etcd/FollowSettings.h"
#include "kelstore/etcd/Mailbox.h"
#include "platform/zavro/Clock.h"
#include "runtime/Threads.h"

namespace Kelstore::Etcd {

class Session {
 public:
  // All but the settings outlive the session; clock and mailbox are used on its thread. What may hang is
  // done on one of `threads`, which may still be busy when the session is gone.
  Session(const FollowSettings& settings, const Zavro::Clock& clock, Mailbox& mailbox,
          Runtime::Threads& threads);
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
