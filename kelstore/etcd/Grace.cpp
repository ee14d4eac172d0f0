#include "kelstore/etcd/Grace.h"

#include <algorithm>

namespace Kelstore::Etcd {

void Grace::pass(Batch& batch, uint64_t nowMs) {
  // All that counts is in the batch.
  if (batch.whole) {
    held_.clear();
    leaving_.clear();
  }
  // A lease ends in one revision, and its mark with it: which of the keys comes first means nothing.
  std::vector<std::string> left;
  for (const Change& change : batch.changes) {
    if (!keys_.isLeavingKey(change.key)) continue;
    if (change.value) {
      leaving_[change.key] = change.lease;
    } else {
      left.push_back(change.key);
    }
  }
  std::erase_if(batch.changes, [&](const Change& change) {
    if (keys_.isLeavingKey(change.key)) return true;
    held_.erase(change.key);
    if (!endedByItself(change)) return false;
    held_[change.key].goneAtMs = nowMs + graceMs_;
    nextMs_ = std::min(nextMs_, nowMs + graceMs_);
    return true;
  });
  for (const std::string& key : left) leaving_.erase(key);
  if (held_.empty()) nextMs_ = kNever;
}

bool Grace::endedByItself(const Change& change) const {
  if (graceMs_ == 0 || change.value || change.lease == 0) return false;
  return std::none_of(leaving_.begin(), leaving_.end(),
                      [&](const auto& one) { return one.second == change.lease; });
}

std::vector<Change> Grace::over(uint64_t nowMs) {
  std::vector<Change> gone;
  if (nowMs < nextMs_) return gone;
  nextMs_ = kNever;
  std::erase_if(held_, [&](const auto& one) {
    if (one.second.goneAtMs <= nowMs) {
      gone.push_back({one.first, std::nullopt});
      return true;
    }
    nextMs_ = std::min(nextMs_, one.second.goneAtMs);
    return false;
  });
  return gone;
}

void Grace::storeIsBack(uint64_t nowMs) {
  nextMs_ = kNever;
  for (auto& [key, held] : held_) {
    held.goneAtMs = held.anew ? held.goneAtMs + (nowMs - lostMs_) : nowMs + graceMs_;
    held.anew = true;
    nextMs_ = std::min(nextMs_, held.goneAtMs);
  }
}

std::set<std::string> Grace::members() const {
  std::set<std::string> members;
  for (const auto& [key, held] : held_) {
    absl::StatusOr<Path> path = keys_.path(key);
    if (path.ok() && specOf(path->kind).entity != MemberEntity::none)
      members.insert(std::string(path->first()));
  }
  return members;
}

}  // namespace Kelstore::Etcd
