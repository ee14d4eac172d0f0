#include "bench/fullsize/Followers.h"

#include <array>
#include <chrono>
#include <set>
#include <thread>
#include <vector>

#include "kelstore/etcd/Mailbox.h"
#include "kelstore/etcd/Session.h"
#include "platform/zavro/Clock.h"
#include "runtime/Threads.h"

namespace FullSize {
namespace {

using Kelstore::Kind;

class Follower {
 public:
  Follower(const Kelstore::Etcd::FollowSettings& settings, size_t members, std::shared_ptr<Board> board,
           const Zavro::Clock& clock, Runtime::Threads& threads)
      : members_(members),
        board_(std::move(board)),
        mailbox_([this] { take(); }),
        session_(settings, clock, mailbox_, threads),
        thread_([this] { session_.run(); }) {}

  bool watching() const { return mailbox_.status().state == "watching"; }
  bool complete() const { return complete_; }

 private:
  void take() {
    auto update = mailbox_.take();
    if (update.snapshot == nullptr) return;
    board_->changes += update.changed.size();
    for (const Kelstore::Path& path : update.changed) {
      if (path.kind == Kind::system) systemIs(path, *update.snapshot);
      if (path.kind == Kind::reachability && update.snapshot->find(path) != nullptr) timeIs(path);
    }
    snapshot_ = std::move(update.snapshot);
  }

  void systemIs(const Kelstore::Path& path, const Kelstore::Snapshot& snapshot) {
    std::string member(path.first());
    if (snapshot.find(path) != nullptr) {
      present_.insert(member);
    } else if (present_.erase(member) != 0) {
      ++board_->lostMembers;
    }
    complete_ = present_.size() >= members_;
  }

  // The first news after the loss tells of it.
  void timeIs(const Kelstore::Path& path) {
    auto member = static_cast<size_t>(std::stoul(std::string(path.first())));
    uint64_t lostNs = board_->lostLinkNs[member];
    if (lostNs == 0 || std::exchange(seenLossNs_[member], lostNs) == lostNs) return;
    size_t at = board_->times++;
    if (at < Board::kMaxTimes) board_->timesUs[at] = static_cast<uint32_t>((nowNs() - lostNs) / 1000);
  }

  const size_t members_;
  std::shared_ptr<Board> board_;
  std::set<std::string> present_;
  std::array<uint64_t, kMembers> seenLossNs_{};
  std::atomic<bool> complete_ = false;
  std::shared_ptr<const Kelstore::Snapshot> snapshot_;
  Kelstore::Etcd::Mailbox mailbox_;
  Kelstore::Etcd::Session session_;
  std::thread thread_;
};

}  // namespace

void follow(const Kelstore::Etcd::Address& store, size_t followers, size_t members,
            const std::shared_ptr<Board>& board) {
  Zavro::SystemClock clock;
  Runtime::Threads threads;
  Kelstore::Etcd::FollowSettings settings;
  settings.address = store;
  std::vector<std::unique_ptr<Follower>> all;
  for (size_t i = 0; i < followers; ++i) {
    settings.place = i;
    all.push_back(std::make_unique<Follower>(settings, members, board, clock, threads));
  }
  while (true) {
    uint64_t watching = 0, complete = 0;
    for (const auto& one : all) {
      watching += one->watching() ? 1 : 0;
      complete += one->complete() ? 1 : 0;
    }
    board->watching = watching;
    board->complete = complete;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
}

}  // namespace FullSize
