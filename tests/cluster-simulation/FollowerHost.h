// A real follower, with its feed and mailbox, on a machine that reaches the simulated store over a simulated
// network: does what Session.h does, without gRPC.
#pragma once

#include <array>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kelstore/etcd/Feed.h"
#include "kelstore/etcd/Follower.h"
#include "tests/cluster-simulation/Sabotage.h"
#include "tests/cluster-simulation/Store.h"

namespace ClusterSimulation {

class FollowerHost final {
 public:
  static constexpr uint64_t kGraceMs = 5'000;
  static constexpr uint64_t kHoldMs = 300'000;
  static constexpr uint64_t kResyncMs = 60'000;
  // A change that a watch did not tell is repaired within this time.
  static constexpr uint64_t kRepairMs = 70'000;

  // Called when the tables may have changed: the paths, in order.
  using Changed = std::function<void(const std::vector<Kelstore::Path>&)>;

  FollowerHost(size_t number, World& world, Store& store, const Sabotage& sabotage, Changed changed);

  void start();

  // What happens to its network.
  // Packets are lost, in both directions; the connection ends when they are not any more.
  void cut(size_t server, bool is);
  void cutAll(bool is);
  void reset();         // its connection ends
  void late(bool is);   // answers come after the deadline
  void twice(bool is);  // pages come twice
  void inFragments(bool is) { fragments_ = is; }
  void loseNext(size_t events);  // the watch loses the next answers with events
  void deaf(bool is);            // its present watch loses all events, but answers otherwise
  void repeatEvents(bool is) { repeats_ = is; }

  // What its tables show.
  const Kelstore::Snapshot& tables() const { return *tables_; }
  std::string text(const Kelstore::Path& path) const;
  const Etcd::Follower& follower() const { return follower_; }
  // Since when nothing happened that excuses a table that is not up to date; Follower::kNever: it is excused.
  uint64_t soundSinceMs() const;
  bool soundSince(uint64_t ms) const { return soundSinceMs() <= ms; }
  // Whether the watch may have lost something that no resync has repaired yet.
  bool mayMissSomething() const { return world_.nowMs() < missesUntilMs_; }
  size_t number() const { return number_; }

 private:
  void turn();
  void carryOut(const Etcd::Connect& command);
  void carryOut(const Etcd::Disconnect& command);
  void carryOut(const Etcd::ReadPage& command);
  void carryOut(const Etcd::OpenWatch& command);
  void carryOut(const Etcd::RequestProgress& command);
  void carryOut(const Etcd::AskHome& command);
  void leave();
  void lostAfter(uint64_t ms, const std::string& why);
  void answerRead(uint64_t connection, const Etcd::ReadPage& command);
  void openWatch(uint64_t connection, int64_t from);
  void said(uint64_t connection, Etcd::WatchResponse response);
  void deliver(uint64_t connection, Etcd::WatchResponse response, bool inOrder);
  bool reaches(size_t server) const { return !cut_[server] && !cutAll_; }
  uint64_t wayMs() { return world_.between(1, 4); }
  void troubled() { troubleMs_ = world_.nowMs(); }
  void missesSomething();
  template <class Call>
  void later(uint64_t ms, uint64_t connection, Call call);

  size_t number_;
  World& world_;
  Store& store_;
  const Sabotage& sabotage_;
  Changed changed_;
  std::shared_ptr<const Kelstore::Snapshot> tables_ = std::make_shared<const Kelstore::Snapshot>();
  Etcd::Mailbox mailbox_;
  Etcd::Feed feed_;
  Etcd::Follower follower_;
  uint64_t wake_ = 0;  // the last one that was asked for

  uint64_t connection_ = 0;  // number of the present one
  uint64_t homeAsked_ = 0;   // number of the last time
  bool connected_ = false;
  size_t server_ = 0;
  std::optional<uint64_t> watch_;
  uint64_t lastDeliveryMs_ = 0;
  std::vector<Etcd::Event> lastEvents_;

  std::array<bool, Store::kServers> cut_{};
  bool cutAll_ = false, late_ = false, twice_ = false, fragments_ = false, repeats_ = false;
  bool deafWatch_ = false;  // the present watch
  size_t toLose_ = 0;

  uint64_t watchingSinceMs_ = Etcd::Follower::kNever;
  uint64_t troubleMs_ = 0;  // the last moment at which something was wrong
  uint64_t missesUntilMs_ = 0;
};

// An endpoint's name, and its number.
std::string endpointOf(size_t server);
size_t serverOf(const std::string& endpoint);

}  // namespace ClusterSimulation
