// Where the follower's thread leaves what it has for the event loop's, and nothing else crosses. What has not
// been taken yet is joined, path by path, so that it stays bounded however far the loop is behind. Each
// function says which side calls it; none waits for the other side.
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
    std::shared_ptr<const Snapshot> snapshot;  // null: the state is as it was
    std::vector<Path> changed;                 // sorted
    int64_t revision = 0;                      // of the snapshot
    bool settled = false;                      // the source has said what it has to say for now
    std::vector<Line> lines;
  };
  // Lines beyond this are dropped until the loop takes some.
  static constexpr size_t kMaxLines = 100;

  // `wake` is called on the follower's thread.
  explicit Mailbox(std::function<void()> wake) : wake_(std::move(wake)) {}

  // The follower's side. One thread.
  void give(Update update);
  void statusIs(StoreStatus status);  // all but the members
  void memberIs(const MemberStatus& status);
  void memberDel(const std::string& member);

  // The loop's side.
  Update take();
  // Large things that the loop has no use for any more; the other side frees them.
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
