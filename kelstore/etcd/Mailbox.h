// Where the follower's thread leaves changes and status for the event loop's. Nothing else passes between the
// two. Changes that were not taken yet are merged path by path, so that they stay bounded however far the
// loop is behind. Neither side waits for the other.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "kelstore/Snapshot.h"
#include "kelstore/Source.h"
#include "kelstore/etcd/Decoder.h"

namespace Kelstore::Etcd {

class Mailbox {
 public:
  struct Update {
    std::shared_ptr<const Snapshot> snapshot = {};  // null: the state has not changed
    std::vector<Path> changed = {};                 // sorted
    int64_t revision = 0;                           // of the snapshot
    bool settled = false;                           // the source's layer may settle
    std::vector<Line> lines = {};
    bool leasesAsked = false;  // the members' lease times are up to date
    bool news = false;         // not all that changed goes on by itself
  };
  // Lines beyond this are dropped until the loop takes some.
  static constexpr size_t kMaxLines = 100;

  // wake: called on the follower's thread after each give().
  explicit Mailbox(std::function<void()> wake) : wake_(std::move(wake)) {}

  // The follower's side. One thread.
  void give(Update update);
  void statusIs(StoreStatus status);  // all but the members
  void memberIs(const MemberStatus& status);
  void memberDel(const std::string& member);

  // The loop's side.
  Update take();
  // Has the other side free a snapshot, since that may take long.
  void discard(std::shared_ptr<const Snapshot> snapshot);
  StoreStatus status() const;

 private:
  std::function<void()> wake_;
  mutable std::mutex mutex_;
  Update pending_;
  std::vector<std::shared_ptr<const Snapshot>> discarded_;
  StoreStatus status_;
  std::map<std::string, MemberStatus> members_;
};

}  // namespace Kelstore::Etcd
