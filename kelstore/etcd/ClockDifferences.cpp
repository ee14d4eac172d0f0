#include "kelstore/etcd/ClockDifferences.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <utility>

namespace Kelstore::Etcd {
namespace {

// This machine's clock was set if the two clocks have moved apart by so much.
constexpr double kMostDisagreement = 1;

}  // namespace

std::vector<std::string> ClockDifferences::clocksAre(const Now& now) {
  double start = now.utcSeconds - now.monotonicSeconds;
  double before = std::exchange(startSeconds_, start).value_or(start);
  std::vector<std::string> changed;
  if (std::fabs(start - before) <= kMostDisagreement) return changed;
  for (auto& [member, one] : members_) {
    if (one.correctionSeconds != 0) changed.push_back(member);
    one = {.lastSeconds = one.lastSeconds};
  }
  return changed;
}

bool ClockDifferences::published(const std::string& member, double utcSeconds, const Now& now) {
  auto [at, isNew] = members_.try_emplace(member);
  Member& one = at->second;
  if (!isNew && one.lastSeconds == utcSeconds) return false;
  one.lastSeconds = utcSeconds;
  one.recent.push_back(utcSeconds - now.utcSeconds);
  if (one.recent.size() > kRecent) one.recent.pop_front();
  std::optional<Difference> difference = differenceIn(one.recent);
  if (!difference) return false;
  one.difference = difference;
  double ahead = difference->aheadSeconds;
  if (std::fabs(ahead - one.correctionSeconds) < kLeastSeconds) return false;
  one.correctionSeconds = std::fabs(ahead) < kLeastSeconds ? 0 : ahead;
  return true;
}

// The greatest that enough others agree with.
std::optional<ClockDifferences::Difference> ClockDifferences::differenceIn(const std::deque<double>& recent) {
  std::vector<double> sorted(recent.begin(), recent.end());
  std::sort(sorted.begin(), sorted.end(), std::greater<>());
  for (size_t i = 0; i + kAgreeing <= sorted.size(); ++i) {
    double ahead = sorted[i];
    if (ahead - sorted[i + kAgreeing - 1] > kAgreeSeconds) continue;
    auto beyond = std::find_if(sorted.begin() + static_cast<std::ptrdiff_t>(i), sorted.end(),
                               [ahead](double other) { return ahead - other > kAgreeSeconds; });
    return Difference{ahead, std::max(kLeastErrorSeconds, ahead - *std::prev(beyond))};
  }
  return std::nullopt;
}

std::optional<ClockDifferences::Difference> ClockDifferences::of(const std::string& member) const {
  auto known = members_.find(member);
  return known == members_.end() ? std::nullopt : known->second.difference;
}

double ClockDifferences::correctionSeconds(const std::string& member) const {
  auto known = members_.find(member);
  return known == members_.end() ? 0 : known->second.correctionSeconds;
}

}  // namespace Kelstore::Etcd
