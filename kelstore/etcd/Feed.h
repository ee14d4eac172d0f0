// From the follower to the event loop: decodes changes, keeps the state that they result in, and puts state
// and status into the mailbox. On the follower's thread.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "kelstore/etcd/ChangeTimes.h"
#include "kelstore/etcd/Decoder.h"
#include "kelstore/etcd/Follower.h"
#include "kelstore/etcd/Grace.h"
#include "kelstore/etcd/Mailbox.h"
#include "kelstore/etcd/RunningClocks.h"
#include "platform/zavro/Clock.h"

namespace Kelstore::Etcd {

class Feed {
 public:
  // How many values that were set aside are shown.
  static constexpr size_t kExamples = 20;
  static constexpr size_t kExampleBytes = 200;  // of the key, and of what is wrong with it, about

  struct Settings {
    Limits limits = {};
    bool clearWhenStale = false;  // withdraw all values while the store is stale
    uint64_t graceMs = 5'000;     // see Grace.h
  };
  // Clock and mailbox outlive the feed.
  Feed(KeySpace keys, const Settings& settings, const Zavro::Clock& clock, Mailbox& mailbox);

  // Hands over what the follower has done since the last call. Throws std::bad_alloc if there is too little
  // memory to decode it; call startsAnew() then, and go on with a new follower.
  void follow(Follower& follower);
  // A new follower lists all keys. Until it has, the values that were handed over stay, and are stale.
  void startsAnew();
  // When to call follow(), at the latest; Follower::kNever: there is no need.
  uint64_t wakeAtMs() const;

  // The leases of members' keys, each once. What was known of the time they have left is forgotten.
  std::vector<int64_t> takeLeases();
  // What the store says of one of them; nothing: it has ended.
  void leaseIs(int64_t lease, std::optional<uint64_t> secondsLeft, uint64_t grantedSeconds);

 private:
  struct Member {
    MemberStatus status;
    int64_t lease = 0;
  };

  void take(Batch batch);
  void withdrawOthers(Decoder::Decoded& decoded) const;
  void decode(Batch batch);
  void endGrace();
  void tick();
  // news: something was written, so that it is a change of the source.
  void give(std::vector<Path> changed, bool news);
  void noteHeldMembers();
  uint64_t nowMs() const { return clock_.monotonicNs() / 1'000'000; }
  void noteMembers(const std::map<std::string, int64_t>& leases);
  void visibleIs(bool visible);
  void tell(int level, std::string text);
  void noteState(const Follower& follower);
  void noteResyncs(const Follower& follower);
  void noteRefused(const KeyTable::AllRefused& refused);
  StoreStatus statusOf(const Follower& follower) const;

  KeySpace keys_;
  Settings settings_;
  const Zavro::Clock& clock_;
  Mailbox& mailbox_;
  Decoder decoder_;
  Grace grace_;
  RunningClocks clocks_;
  ChangeTimes changeTimes_;
  std::shared_ptr<const Snapshot> snapshot_ = std::make_shared<const Snapshot>();
  bool visible_ = true;
  bool settled_ = false;
  bool listed_ = false;
  Follower::State state_ = Follower::State::listing;
  std::set<std::string> toldErrors_;
  std::set<std::string> toldGroups_;  // of which keys are refused
  bool toldOfForeignKey_ = false;
  std::vector<Line> lines_;
  int64_t revision_ = 0;
  Follower::Counters counted_;  // when the resyncs were looked at last
  bool resyncsFail_ = false;
  uint64_t heardMs_ = 0;
  uint64_t heardUtcNs_ = 0;
  uint64_t heldSinceUtcNs_ = 0;
  uint64_t staleSinceUtcNs_ = 0;
  std::map<std::string, Member> members_;
};

}  // namespace Kelstore::Etcd
