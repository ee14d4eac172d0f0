#include "kelstore/etcd/Mailbox.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace Kelstore::Etcd {

// Takes back what the loop has not taken, and merges it without the lock. The loop finds nothing meanwhile,
// and is woken again.
void Mailbox::give(Update update) {
  Update before;
  {
    std::lock_guard lock(mutex_);
    before = std::exchange(pending_, {});
  }
  if (!before.changed.empty()) {
    std::vector<Path> both;
    both.reserve(before.changed.size() + update.changed.size());
    std::set_union(std::make_move_iterator(before.changed.begin()),
                   std::make_move_iterator(before.changed.end()),
                   std::make_move_iterator(update.changed.begin()),
                   std::make_move_iterator(update.changed.end()), std::back_inserter(both));
    update.changed = std::move(both);
  }
  if (update.snapshot == nullptr) {
    update.snapshot = std::move(before.snapshot);
    update.revision = before.revision;
  }
  update.news |= before.news;
  update.settled |= before.settled;
  update.leasesAsked |= before.leasesAsked;
  before.lines.insert(before.lines.end(), std::make_move_iterator(update.lines.begin()),
                      std::make_move_iterator(update.lines.end()));
  if (before.lines.size() > kMaxLines) before.lines.resize(kMaxLines);
  update.lines = std::move(before.lines);
  {
    std::lock_guard lock(mutex_);
    pending_ = std::move(update);
  }
  wake_();
}

Mailbox::Update Mailbox::take() {
  std::lock_guard lock(mutex_);
  return std::exchange(pending_, {});
}

void Mailbox::discard(std::shared_ptr<const Snapshot> snapshot) {
  std::lock_guard lock(mutex_);
  discarded_.push_back(std::move(snapshot));
}

void Mailbox::statusIs(StoreStatus status) {
  std::vector<std::shared_ptr<const Snapshot>> discarded;
  std::lock_guard lock(mutex_);
  discarded.swap(discarded_);
  std::swap(status_, status);
}

void Mailbox::memberIs(const MemberStatus& status) {
  std::lock_guard lock(mutex_);
  members_[status.member] = status;
}

void Mailbox::memberDel(const std::string& member) {
  std::lock_guard lock(mutex_);
  members_.erase(member);
}

StoreStatus Mailbox::status() const {
  std::lock_guard lock(mutex_);
  StoreStatus status = status_;
  for (const auto& [name, member] : members_) status.members.push_back(member);
  return status;
}

}  // namespace Kelstore::Etcd
