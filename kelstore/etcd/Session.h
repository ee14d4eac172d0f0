// The follower's thread: carries out the follower's commands over gRPC, reports to it, and hands over the
// results through the mailbox.
#pragma once

#include <memory>

#include "kelstore/etcd/FollowSettings.h"
#include "kelstore/etcd/Mailbox.h"
#include "platform/zavro/Clock.h"
#include "runtime/Threads.h"

namespace Kelstore::Etcd {

class Session {
 public:
  // Clock, mailbox and threads outlive the session; clock and mailbox are used on its thread. Files are read
  // on one of `threads`, which may still be busy when the session is gone.
  Session(const FollowSettings& settings, const Zavro::Clock& clock, Mailbox& mailbox,
          Runtime::Threads& threads);
  ~Session();

  // Follows the store until stop(). Call it once, on a thread of its own.
  void run();
  // An operator says that another store counts; see Follower. On any thread, before stop().
  void accept();
  // Asks the store what time the members' leases have left, and tells the mailbox when it has answered. On
  // any thread, before stop().
  void askForLeases();
  // Whether the thread has answered but for the latest call of this, or the one before; asks it again. On one
  // thread, while run() runs.
  bool alive();
  // Makes run() return at once, also if it is called later. On any thread, once.
  void stop();

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace Kelstore::Etcd
