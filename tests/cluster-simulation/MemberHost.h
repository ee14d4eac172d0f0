// A process that publishes a member: a real publisher on an event loop and a store that the simulation gives
// it, with the client's way through the servers: the current one, and the others when it does not answer.
#pragma once

#include <array>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "member/Publisher.h"
#include "runtime/Io.h"
#include "tests/cluster-simulation/Sabotage.h"
#include "tests/cluster-simulation/Store.h"

namespace ClusterSimulation {

class MemberHost final : public Runtime::Io {
 public:
  static constexpr uint32_t kTtlSeconds = 15;
  static constexpr uint64_t kTtlMs = kTtlSeconds * 1000;

  // Values by path, as they are published.
  using Content = std::map<Kelstore::Path, Kelstore::Value>;

  // handover: at the end its lease is left to a successor.
  MemberHost(uint8_t member, std::string interface, bool handover, World& world, Store& store,
             const Sabotage& sabotage);
  ~MemberHost() override;

  // A process that stands still reads its figures first when it goes on.
  void contentIs(const Content& content);
  const Content& content() const { return content_; }
  // Whether it has wanted to publish the path for so long.
  bool wants(const Kelstore::Path& path, uint64_t ms) const;
  // Gives its lease back, or leaves it to a successor, and calls then.
  void end(std::function<void()> ended = {});
  void kill();
  void suspend(bool is);  // the process stands still; what comes meanwhile waits
  void cut(size_t server, bool is) { cut_[server] = is; }
  void cutAll(bool is) { cutAll_ = is; }
  void refuseWrites(bool is) { refused_ = is; }
  void loseAnswers(unsigned percent) { lostAnswers_ = percent; }

  uint8_t member() const { return member_; }
  bool running() const { return !dead_ && !ended_; }
  bool ending() const { return ending_; }
  bool ended() const { return ended_; }
  bool suspended() const { return suspended_; }
  Member::Publisher::State state() const { return publisher_->state(); }
  // Whether it runs, and a server serves it that it reaches.
  bool served() const;
  // Served, and nothing is lost on the way.
  bool servedWell() const;
  // When a call failed last of which at least one answer was lost on the way.
  uint64_t answersLostMs() const { return answersLostMs_; }
  bool refusesWrites() const { return refused_; }
  // Leases that were granted to it.
  bool owns(int64_t lease) const { return leases_.contains(lease); }

 private:
  class Client;
  class Timer;
  // A call of the store, on its way through the servers.
  struct Job {
    std::function<void()> work;
    std::function<void()> done;
    size_t server = 0;  // that is tried; renewals and other calls have clients of their own
    size_t tried = 0;
    uint64_t untilMs = 0;
    bool answerLost = false;  // of a server, at least
  };
  using JobPtr = std::shared_ptr<Job>;

  std::unique_ptr<Waker> waker(std::function<void()> woken) override;
  std::unique_ptr<Activity> watch(const std::string& path, std::function<void()> changed) override;
  std::unique_ptr<Activity> after(uint64_t ms, std::function<void()> elapsed) override;
  void offLoop(std::function<void()> work, std::function<void()> done) override;

  void tellContent();
  bool usable(size_t server) const;
  void tryServer(const JobPtr& job);
  void next(const JobPtr& job, uint64_t waitedMs);
  // Calls in this process, once it runs again if it stands still, and never once it is dead.
  void in(uint64_t ms, std::function<void()> call);
  void now(std::function<void()> call);

  uint8_t member_;
  World& world_;
  Store& store_;
  const Sabotage& sabotage_;
  std::shared_ptr<Client> client_;
  std::unique_ptr<Member::Publisher> publisher_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
  bool dead_ = false, ending_ = false, ended_ = false, suspended_ = false;
  std::list<std::function<void()>> waiting_;  // until it runs again
  Content content_;
  std::map<Kelstore::Path, uint64_t> wantedSinceMs_;

  std::array<bool, Store::kServers> cut_{};
  bool cutAll_ = false, refused_ = false;
  unsigned lostAnswers_ = 0;
  uint64_t answersLostMs_ = 0;
  size_t server_;  // that answered last
  std::set<int64_t> leases_;
};

}  // namespace ClusterSimulation
