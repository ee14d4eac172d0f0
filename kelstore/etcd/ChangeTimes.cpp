#include "kelstore/etcd/ChangeTimes.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "platform/lumalog/Lumalog.h"

namespace Kelstore::Etcd {
namespace {

constexpr double kNsPerSecond = 1e9;
// A time that is to come by less is shown as it is: clocks that run well differ by as much.
constexpr auto kToComeNs = static_cast<uint64_t>(ClockDifferences::kLeastSeconds * kNsPerSecond);

// Limited to what there is.
uint64_t earlierBy(double seconds, uint64_t timeNs) {
  constexpr uint64_t kLast = std::numeric_limits<uint64_t>::max();
  double ns = std::fabs(seconds) * kNsPerSecond;
  uint64_t room = seconds > 0 ? timeNs : kLast - timeNs;
  uint64_t by = ns < static_cast<double>(room) ? static_cast<uint64_t>(ns) : room;
  return seconds > 0 ? timeNs - by : timeNs + by;
}

Value changedAt(uint64_t ns, const Reachability& report) {
  return Reachability{report.state, report.intf, ns};
}

bool isBefore(const Snapshot::Change& a, const Snapshot::Change& b) { return a.first < b.first; }

}  // namespace

void ChangeTimes::correct(std::vector<Snapshot::Change>& changes, const Snapshot& state, bool justNow) {
  std::set<std::string> moved = noteClocks();
  for (const auto& [path, value] : changes) {
    if (!justNow || path.kind != Kind::system || !value) continue;
    std::string member(path.first());
    if (noteTime(member, value->get<System>().currentTimeUtc)) moved.insert(std::move(member));
  }
  for (auto& [path, value] : changes) {
    if (path.kind == Kind::reachability) correct(path, value, state);
  }
  if (!moved.empty()) addReportsOf(moved, changes, state);
}

ClockDifferences::Now ChangeTimes::now() const {
  return {static_cast<double>(clock_.utcNs()) / kNsPerSecond,
          static_cast<double>(clock_.monotonicNs()) / kNsPerSecond};
}

// The members whose correction is gone, since this machine's clock was set.
std::set<std::string> ChangeTimes::noteClocks() {
  std::vector<std::string> members = differences_.clocksAre(now());
  if (!members.empty()) {
    lines_.push_back(
        {Lumalog::kWarningLevel,
         fmt::format("this machine's clock was set: {} members' clocks are compared with it anew",
                     members.size()),
         "this machine's clock"});
  }
  return {members.begin(), members.end()};
}

bool ChangeTimes::noteTime(const std::string& member, double utcSeconds) {
  if (!differences_.published(member, utcSeconds, now())) return false;
  std::string subject = "the clock of member " + member;
  double ahead = differences_.correctionSeconds(member);
  std::string what =
      ahead == 0 ? "agrees with this machine's again"
                 : fmt::format("is {:.1f} s {} this machine's: the times of its changes are corrected",
                               std::fabs(ahead), ahead > 0 ? "ahead of" : "behind");
  lines_.push_back({Lumalog::kWarningLevel, fmt::format("{} {}", subject, what), subject});
  return true;
}

void ChangeTimes::correct(const Path& path, std::optional<Value>& report, const Snapshot& state) {
  if (!report) {
    published_.erase(path);
    return;
  }
  uint64_t publishedNs = report->get<Reachability>().lastChangeNs;
  uint64_t shown = shownNs(path, publishedNs, state);
  if (shown == publishedNs) {
    published_.erase(path);
    return;
  }
  published_[path] = publishedNs;
  report = changedAt(shown, report->get<Reachability>());
}

uint64_t ChangeTimes::shownNs(const Path& path, uint64_t publishedNs, const Snapshot& state) const {
  if (publishedNs == 0) return 0;  // it says nothing
  uint64_t shown = earlierBy(differences_.correctionSeconds(std::string(path.first())), publishedNs);
  uint64_t now = clock_.utcNs();
  if (shown <= now + kToComeNs) return shown;
  // A report that is read once more is to stay as it is.
  auto known = published_.find(path);
  const Value* before =
      known != published_.end() && known->second == publishedNs ? state.find(path) : nullptr;
  return before == nullptr ? now : std::min(before->get<Reachability>().lastChangeNs, now);
}

void ChangeTimes::addReportsOf(const std::set<std::string>& members, std::vector<Snapshot::Change>& changes,
                               const Snapshot& state) {
  std::vector<Snapshot::Change> others;
  state.forEach(Kind::reachability, [&](const Path& path, const Value& value) {
    Snapshot::Change change(path, value);
    bool isThere = std::binary_search(changes.begin(), changes.end(), change, isBefore);
    if (isThere || !members.contains(std::string(path.first()))) return;
    if (auto known = published_.find(path); known != published_.end()) {
      change.second = changedAt(known->second, value.get<Reachability>());
    }
    correct(path, change.second, state);
    others.push_back(std::move(change));
  });
  auto middle = changes.insert(changes.end(), std::make_move_iterator(others.begin()),
                               std::make_move_iterator(others.end()));
  std::inplace_merge(changes.begin(), middle, changes.end(), isBefore);
}

std::vector<Line> ChangeTimes::takeLines() { return std::exchange(lines_, {}); }

}  // namespace Kelstore::Etcd
