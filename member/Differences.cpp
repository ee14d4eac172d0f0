#include "member/Differences.h"

#include <algorithm>
#include <tuple>
#include <utility>

namespace Member {
namespace {

using Kelstore::Path;
using Holdings = LeaseStore::Holdings;

// Whether several members may publish such a path; the first one does.
bool isShared(const Path& path) { return Kelstore::specOf(path.kind).owner == Kelstore::Owner::firstMember; }

// The key of this member that `self` wrote last; if there is none, that anybody did; or the end.
Holdings::const_iterator lastWritten(const Holdings& holdings, LeaseStore::Lease self) {
  auto rank = [self](const auto& entry) {
    const LeaseStore::Held& held = entry.second;
    return std::tuple(!isShared(entry.first), held.lease == self, held.revision);
  };
  auto last = std::max_element(holdings.begin(), holdings.end(),
                               [&rank](const auto& a, const auto& b) { return rank(a) < rank(b); });
  return last == holdings.end() || isShared(last->first) ? holdings.end() : last;
}

}  // namespace

std::set<LeaseStore::Lease> otherLeases(const Holdings& holdings, LeaseStore::Lease self) {
  std::set<LeaseStore::Lease> others;
  for (const auto& [path, held] : holdings) {
    if (!isShared(path) && held.lease != LeaseStore::kNoLease) others.insert(held.lease);
  }
  others.erase(self);
  return others;
}

bool isForeign(const Path& path, const Holdings& holdings, const Owners& owners) {
  if (!isShared(path)) return false;
  auto held = holdings.find(path);
  return held != holdings.end() && held->second.lease != LeaseStore::kNoLease &&
         !owners.are(held->second.lease);
}

std::vector<LeaseStore::Change> differences(const Content& content, const Holdings& holdings,
                                            const Owners& owners) {
  std::vector<LeaseStore::Change> changes;
  for (const auto& [path, text] : content) {
    auto held = holdings.find(path);
    bool there = held != holdings.end();
    if (there && held->second.lease == owners.self && held->second.text == text) continue;
    if (!isForeign(path, holdings, owners)) changes.push_back({path, text});
  }
  for (const auto& [path, held] : holdings) {
    if (content.contains(path)) continue;
    if (!isShared(path) || owners.are(held.lease)) changes.push_back({path, std::nullopt});
  }
  if (auto last = lastWritten(holdings, owners.self); last != holdings.end()) {
    std::stable_partition(changes.begin(), changes.end(),
                          [&](const LeaseStore::Change& change) { return change.path == last->first; });
  }
  return changes;
}

std::optional<LeaseStore::Change> proof(const Content& content, LeaseStore::Lease self,
                                        const Holdings& holdings) {
  for (const auto& [path, text] : content) {
    auto held = holdings.find(path);
    if (!isShared(path) && held != holdings.end() && held->second.lease == self) {
      return LeaseStore::Change{path, text};
    }
  }
  return std::nullopt;
}

std::vector<LeaseStore::Precondition> preconditions(const std::vector<LeaseStore::Change>& changes,
                                                    const Holdings& holdings, LeaseStore::Lease self) {
  std::vector<LeaseStore::Precondition> preconditions;
  auto last = lastWritten(holdings, self);
  bool any = last != holdings.end();
  if (any) preconditions.push_back({last->first, last->second.revision});
  for (const LeaseStore::Change& change : changes) {
    if (!isShared(change.path) && any) continue;
    auto held = holdings.find(change.path);
    preconditions.push_back({change.path, held == holdings.end() ? 0 : held->second.revision});
  }
  return preconditions;
}

}  // namespace Member
