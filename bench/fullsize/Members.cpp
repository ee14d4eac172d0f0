#include "bench/fullsize/Members.h"

#include <fmt/format.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "kelstore/etcd/Address.h"
#include "member/LinuxMachine.h"
#include "member/OwnState.h"
#include "member/Publisher.h"
#include "programs/trelmemberd/Trelmemberd.h"
#include "runtime/EventLoop.h"
#include "runtime/UvIo.h"

namespace FullSize {
namespace {

using Member::LeaseStore;

// A daemon asks more often; here the processor is for the store.
constexpr uint32_t kProbeMs = 5000;
constexpr uint64_t kLossMs = 1000;

// Takes note of when renewals and writes work.
class NotedStore final : public LeaseStore {
 public:
  NotedStore(std::shared_ptr<LeaseStore> store, size_t member, std::shared_ptr<Board> board)
      : store_(std::move(store)), member_(member), board_(std::move(board)) {}

  absl::StatusOr<Lease> grant(std::chrono::seconds ttl) override { return store_->grant(ttl); }
  absl::Status renew(Lease lease) override {
    absl::Status status = store_->renew(lease);
    if (status.ok()) board_->renewedNs[member_] = nowNs();
    return status;
  }
  absl::Status revoke(Lease lease, Why why) override { return store_->revoke(lease, why); }
  absl::StatusOr<Holdings> list(uint8_t member, const std::vector<std::string>& interfaces) override {
    return store_->list(member, interfaces);
  }
  absl::StatusOr<int64_t> write(const std::vector<Change>& changes,
                                const std::vector<Precondition>& preconditions, Lease lease) override {
    auto revision = store_->write(changes, preconditions, lease);
    if (revision.ok()) board_->writtenNs[member_] = nowNs();
    return revision;
  }
  std::string endpoint() const override { return store_->endpoint(); }

 private:
  std::shared_ptr<LeaseStore> store_;
  size_t member_;
  std::shared_ptr<Board> board_;
};

class AnsweringProbe final : public Member::EchoProbe {
 public:
  absl::StatusOr<bool> ask(const Member::EchoTarget& /*target*/) override { return true; }
};

class TwoLinks final : public Member::Links {
 public:
  bool known() const override { return true; }
  std::optional<Member::Device> find(const std::string& name) const override {
    bool next = name == "next";
    return Member::Device{next ? 2u : 1u, true, !next || carrier};
  }
  bool carrier = true;
};

Member::NeighbourConfig neighbour(size_t of, size_t member, const std::string& device) {
  Member::NeighbourConfig config;
  config.member = static_cast<uint8_t>(member);
  config.interface = fmt::format("Backplane{}/{}", of, device);
  config.device = device;
  config.address = "10.0.0.1";
  config.probe.intervalMs = kProbeMs;
  config.ifIndex = static_cast<uint32_t>(of * 1000 + member);
  return config;
}

Member::Config configOf(size_t member, size_t ring, const std::string& store) {
  Member::Config config;
  config.member = static_cast<uint8_t>(member);
  config.store = store;
  config.neighbours = {neighbour(member, member == 1 ? ring : member - 1, "previous"),
                       neighbour(member, member == ring ? 1 : member + 1, "next")};
  return config;
}

class OneMember {
 public:
  OneMember(const Member::Config& config, const std::shared_ptr<Board>& board, Runtime::Io& io,
            const Zavro::Clock& clock)
      : publisher_(settingsOf(config),
                   std::make_shared<NotedStore>(Member::storeOf(config), config.member, board), io, clock,
                   {[] {}, [](const std::string&) {},
                    [this](const LeaseStore::Holdings& holdings) { state_.earlierIs(holdings); }}),
        state_(config, std::make_shared<Member::LinuxMachine>(), std::make_shared<AnsweringProbe>(), links_,
               io, clock, [this] {
                 if (state_.known()) publisher_.contentIs(state_.entries());
               }) {
    state_.start();
  }

  void loseLink() {
    links_.carrier = false;
    state_.linksChanged();
  }

 private:
  static Member::Publisher::Settings settingsOf(const Member::Config& config) {
    Member::Publisher::Settings settings;
    settings.member = config.member;
    for (const auto& neighbour : config.neighbours) settings.interfaces.push_back(neighbour.interface);
    settings.ttlSeconds = config.ttlSeconds;
    settings.intervalSeconds = config.intervalSeconds;
    return settings;
  }

  TwoLinks links_;
  Member::Publisher publisher_;
  Member::OwnState state_;
};

}  // namespace

void publish(const std::string& store, size_t members, size_t ring, const std::shared_ptr<Board>& board) {
  Zavro::SystemClock clock;
  Runtime::Threads threads;
  Runtime::EventLoop loop;
  Runtime::UvIo io(loop, threads);
  std::vector<std::unique_ptr<OneMember>> all;
  // As machines that are switched on one after the other, so that their intervals do not coincide.
  Runtime::Timer starts(loop, [&] {
    if (all.size() == members) return;
    all.push_back(std::make_unique<OneMember>(configOf(all.size() + 1, ring, store), board, io, clock));
  });
  starts.start(1, 1 + 10'000 / members);
  size_t next = 0;
  Runtime::Timer losses(loop, [&] {
    if (!board->measuring || next == members) return;
    board->lostLinkNs[next + 1] = nowNs();
    all[next++]->loseLink();
  });
  losses.start(kLossMs, kLossMs);
  loop.run();
}

}  // namespace FullSize
