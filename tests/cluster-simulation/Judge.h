// Knows all that was ever in the store, and says at each moment whether what followers show and publishers
// leave in the store is as it was promised. Written from docs/cluster.md and docs/state.md.
//
// What it holds against them:
// - a value that was never published, an old one after a newer one, one that comes back after it was
//   withdrawn;
// - a row that goes although its key is there, or before the grace is over;
// - a row that stays: over a second after it was withdrawn or its member has left, or over the grace and a
//   second after its lease lapsed; and a value that is not shown after two seconds. Not of a follower that
//   had any trouble since, or whose watch lost something that is not to be repaired yet;
// - a lease that lapses although some server could be used all the time, and answered each of its
//   publisher's calls, for the lease's time;
// - keys that are not there although their publisher is served well, and keys that stand still although it
//   cannot write.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/cluster-simulation/FollowerHost.h"
#include "tests/cluster-simulation/MemberHost.h"

namespace ClusterSimulation {

using Followers = std::vector<std::unique_ptr<FollowerHost>>;
using Members = std::vector<std::unique_ptr<MemberHost>>;  // all processes that ever were

class Judge final {
 public:
  // sampled: of so many puts one is looked for in all tables.
  Judge(World& world, const Followers& followers, const Members& members, unsigned sampled);

  // What happens, in order.
  void committed(int64_t revision, const std::vector<Etcd::Event>& events, Store::Cause cause);
  void lapsed(int64_t lease);
  void allRevoked() { allRevokedMs_ = world_.nowMs(); }
  void changed(const FollowerHost& follower, const std::vector<Kelstore::Path>& paths);
  // Now and then.
  void look(const Store& store);
  // At the end, when all has been well for long enough and nothing changes any more.
  void atEnd(const Store& store);

  // What was wrong first; empty: nothing.
  const std::string& verdict() const { return verdict_; }
  uint64_t checks() const { return checks_; }

 private:
  static constexpr uint64_t kSlackMs = 300;  // for the network
  static constexpr uint64_t kAtOnceMs = 1000 + kSlackMs;
  static constexpr uint64_t kShownMs = 2000 + kSlackMs;
  static constexpr uint64_t kLapsedMs = FollowerHost::kGraceMs + 1000 + kSlackMs;
  static constexpr uint64_t kPublishedMs = 20'000;  // with two calls that fail, and their delays
  static constexpr uint64_t kWrittenMs = 3'000;     // what is wanted newly, when all is well
  static constexpr uint64_t kAnewMs = 4'000;        // after all leases were revoked: within the grace

  struct Put {
    int64_t revision;
    uint64_t ms;
    std::string text;
  };
  struct Deletion {
    int64_t revision;
    uint64_t ms;
    bool lapsed;
  };
  struct Past {
    std::vector<Put> puts;
    std::vector<Deletion> deletions;

    int64_t putLast() const { return puts.empty() ? 0 : puts.back().revision; }
    int64_t deletedLast() const { return deletions.empty() ? 0 : deletions.back().revision; }
    bool there() const { return putLast() > deletedLast(); }
    // Revisions of the first and the last put of a text; 0: there was none.
    int64_t first(const std::string& text) const;
    int64_t last(const std::string& text) const;
  };
  struct Shown {
    std::string text;      // empty: no row
    int64_t revision = 0;  // at which it was there, at the latest
    int64_t first = 0;     // at the earliest
  };
  struct Health {
    uint64_t servedSinceMs = Etcd::Follower::kNever;  // by a server at least
    uint64_t wellSinceMs = Etcd::Follower::kNever;    // by each
    uint64_t refusedSinceMs = Etcd::Follower::kNever;
  };

  void wrong(const std::string& what);
  void appeared(const FollowerHost& follower, const Kelstore::Path& path, const std::string& text);
  void vanished(const FollowerHost& follower, const Kelstore::Path& path);
  void lookForRow(const Kelstore::Path& path, int64_t revision, uint64_t ms);
  void lookForOldRow(const Kelstore::Path& path, int64_t revision, uint64_t ms, const std::string& why);
  void lookAt(const MemberHost& member, Health& health, const Store& store);
  bool alone(const MemberHost& member) const;

  World& world_;
  const Followers& followers_;
  const Members& members_;
  unsigned sampled_;
  Etcd::KeySpace keys_{kPrefix};
  std::map<Kelstore::Path, Past> past_;
  std::vector<std::map<Kelstore::Path, Shown>> shown_;  // by follower
  std::map<const MemberHost*, Health> health_;
  std::map<uint8_t, uint64_t> aloneSinceMs_;  // by member: since when it has one process
  uint64_t allRevokedMs_ = 0;
  uint64_t allHealthyMs_ = 0;  // since when all servers are
  uint64_t checks_ = 0;
  uint64_t puts_ = 0;
  std::string verdict_;
};

}  // namespace ClusterSimulation
