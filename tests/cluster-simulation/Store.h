// A store of three servers as its clients meet it: revisions, transactions, leases, watches, compaction, and
// all that can happen to it. Calls take no time here; who calls decides when that is (FollowerHost.h,
// MemberHost.h).
//
// The servers share one history, and each has its own place in it, up to which it tells its watches. A wiped
// server is an empty store of its own.
#pragma once

#include <absl/status/statusor.h>

#include <array>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "kelstore/etcd/Calls.h"
#include "kelstore/etcd/KeySpace.h"
#include "kelstore/etcd/Messages.h"
#include "tests/cluster-simulation/World.h"

namespace ClusterSimulation {

namespace Etcd = Kelstore::Etcd;

inline constexpr const char* kPrefix = "trel";

class Store final {
 public:
  static constexpr size_t kServers = 3;
  static constexpr uint64_t kClusterId = 0x7;
  static constexpr uint64_t kWipedClusterId = 0x77;

  // Why keys went.
  enum class Cause : uint8_t { written, left, revoked, lapsed };
  using Committed =
      std::function<void(int64_t revision, const std::vector<Etcd::Event>& events, Cause cause)>;
  using Lapsed = std::function<void(int64_t lease)>;
  // A watch's answer; `lost` when the stream ends with the server.
  struct Listener {
    std::function<void(Etcd::WatchResponse)> said;
    std::function<void(const std::string&)> lost;
  };

  // committed: called with each revision. lapsed: before that of a lease that was not renewed in time.
  Store(World& world, Committed committed, Lapsed lapsed);

  // What happens to servers.
  void kill(size_t server);
  void restart(size_t server);
  void wipe(size_t server);
  void unwipe(size_t server);
  void isolate(size_t server);  // from the others; its clients reach it
  void rejoin(size_t server);
  void silence(size_t server);  // it answers nobody, and tells nobody, as a process that was stopped
  void unsilence(size_t server);
  void proxied(size_t server, bool is);  // clients reach it through a proxy, which drops some metadata
  void slow(size_t server, uint64_t answerMs);
  // What happens to the whole.
  void elect(uint64_t afterMs);  // the leader is gone; there is none for that time
  void stallExpiry(bool stalls);
  void revokeAll();
  void compact();
  void noSpace(bool is);

  bool alive(size_t server) const { return !servers_[server].dead; }
  bool silent(size_t server) const { return servers_[server].silent; }
  bool wiped(size_t server) const { return servers_[server].wiped; }
  bool isProxied(size_t server) const { return servers_[server].proxied; }
  uint64_t answerMs(size_t server) const { return servers_[server].answerMs; }
  // Whether it answers calls that take the leader.
  bool serves(size_t server) const;
  bool full() const { return full_; }
  bool stalls() const { return stalled_; }
  bool hasLeader() const { return leader_ != kServers; }
  // Serves, and at once.
  bool healthy(size_t server) const;
  uint64_t healthySinceMs(size_t server) const { return servers_[server].healthySinceMs; }
  // For people: what is wrong with each server; "*" leads.
  std::string healthText() const;

  // Calls at a server that serves, or was wiped.
  struct Read {
    Etcd::Page page;
    bool noRevision = false;
  };
  Read read(size_t server, const std::string& from, int64_t revision, int64_t limit) const;
  absl::StatusOr<int64_t> grant(uint64_t ttlMs);
  absl::Status renew(int64_t lease);
  // meant: whoever revokes it has said so before.
  absl::Status revoke(int64_t lease, bool meant);
  absl::StatusOr<int64_t> txn(const std::vector<Etcd::Op>& ops,
                              const std::vector<Etcd::Precondition>& preconditions);

  // Watches at a server that is alive. The first answer says that it was created.
  uint64_t watch(size_t server, int64_t from, Listener listener);
  void unwatch(uint64_t watch) { watches_.erase(watch); }
  void progress(uint64_t watch);

  int64_t revision() const { return revision_; }
  // The keys that are there, without marks of those who leave.
  std::map<std::string, std::string> content() const;
  bool leaseThere(int64_t lease) const { return leases_.contains(lease); }

 private:
  struct Version {
    int64_t revision = 0;
    std::string value;
    int64_t lease = 0;
    bool deleted = false;
  };
  struct Lease {
    uint64_t ttlMs = 0;
    uint64_t endsMs = 0;
    std::set<std::string> keys;
  };
  struct Server {
    bool dead = false, silent = false, isolated = false, wiped = false, proxied = false;
    uint64_t answerMs = 1;
    int64_t applied = 1;
    uint64_t term = 2;
    bool healthy = true;
    uint64_t healthySinceMs = 0;
  };
  struct Watch {
    size_t server;
    int64_t next;
    Listener listener;
  };

  Etcd::Header header(size_t server, bool latest) const;
  const Version* at(const std::vector<Version>& versions, int64_t revision) const;
  int64_t commit(std::vector<Etcd::Event> events, Cause cause);
  void endLease(int64_t lease, Cause cause);
  void expire();
  bool inStep(size_t server) const;
  std::vector<size_t> inStep() const;
  void apply(size_t server);
  void tell(Watch& watch, int64_t upTo, bool created = false);
  void endWatches(size_t server, const std::string& why);
  void serverChanged(size_t server);
  void noteHealth();

  World& world_;
  Committed committed_;
  Lapsed lapsed_;
  Etcd::KeySpace keySpace_{kPrefix};
  std::array<Server, kServers> servers_;
  size_t leader_ = 0;  // kServers: none
  uint64_t term_ = 2;
  bool electing_ = false;
  bool stalled_ = false;
  bool full_ = false;
  int64_t revision_ = 1;
  int64_t compacted_ = 0;
  std::map<int64_t, std::vector<Etcd::Event>> history_;
  std::map<std::string, std::vector<Version>> keys_;
  std::map<int64_t, Lease> leases_;
  int64_t lastLease_ = 0x1000;
  uint64_t lastWatch_ = 0;
  std::map<uint64_t, Watch> watches_;
};

}  // namespace ClusterSimulation
