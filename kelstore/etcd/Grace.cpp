#include "kelstore/etcd/Grace.h"

#include <algorithm>
#include <utility>

namespace Kelstore::Etcd {

void Grace::pass(Batch& batch, uint64_t nowMs) {
  timePasses(nowMs);
  // All that counts is in the batch.
  if (batch.whole) {
    held_.clear();
    heldOf_.clear();
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
    if (!held_.empty()) release(change.key);
    if (!endedByItself(change)) return false;
    hold(change.key);
    return true;
  });
  for (const std::string& key : left) leaving_.erase(key);
}

bool Grace::endedByItself(const Change& change) const {
  if (graceMs_ == 0 || change.value || change.lease == 0) return false;
  return std::none_of(leaving_.begin(), leaving_.end(),
                      [&](const auto& one) { return one.second == change.lease; });
}

void Grace::timePasses(uint64_t nowMs) {
  passedMs_ += std::min(nowMs - nowMs_, kMostAtOnceMs);
  nowMs_ = nowMs;
}

void Grace::hold(const std::string& key) {
  uint64_t goneAtMs = passedMs_ + graceMs_;
  held_[key] = {goneAtMs, false};
  ++heldOf_[memberOf(key)];
  nextMs_ = std::min(nextMs_, goneAtMs);
}

void Grace::release(const std::string& key) {
  if (held_.erase(key) == 0) return;
  auto count = heldOf_.find(memberOf(key));
  if (--count->second == 0) heldOf_.erase(count);
}

std::string Grace::memberOf(const std::string& key) const {
  absl::StatusOr<Path> path = keys_.path(key);
  if (!path.ok() || specOf(path->kind).entity == MemberEntity::none) return {};
  return std::string(path->first());
}

std::vector<Change> Grace::over(uint64_t nowMs) {
  timePasses(nowMs);
  std::vector<Change> gone;
  if (passedMs_ < nextMs_) return gone;
  nextMs_ = kNever;
  for (const auto& [key, held] : held_) {
    if (held.goneAtMs <= passedMs_) {
      gone.push_back({key, std::nullopt});
    } else {
      nextMs_ = std::min(nextMs_, held.goneAtMs);
    }
  }
  for (const Change& change : gone) release(change.key);
  return gone;
}

void Grace::storeIsBack(uint64_t nowMs) {
  timePasses(nowMs);
  for (auto& [key, held] : held_) {
    if (!std::exchange(held.anew, true)) held.goneAtMs = passedMs_ + graceMs_;
  }
}

uint64_t Grace::wakeAtMs() const {
  if (held_.empty()) return kNever;
  return nowMs_ + (nextMs_ > passedMs_ ? std::min(nextMs_ - passedMs_, kMostAtOnceMs) : 0);
}

}  // namespace Kelstore::Etcd
