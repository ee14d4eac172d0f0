#include "kelstore/etcd/RunningClocks.h"

#include <algorithm>
#include <cmath>

#include "kelstore/Fields.h"

namespace Kelstore::Etcd {
namespace {

uint64_t msOf(uint64_t ns) { return ns / 1'000'000; }

// How long ago a value was written that a listing shows.
uint64_t ageNs(const System& system, uint64_t utcNs) {
  double seconds = static_cast<double>(utcNs) / 1e9 - system.currentTimeUtc;
  bool likely = seconds > 0 && seconds * 1000 <= RunningClocks::kMaxAgeMs;
  return likely ? static_cast<uint64_t>(seconds * 1e9) : 0;
}

// Whether both are of the same run of the machine, with a clock that was not set in between.
bool startedTogether(const System& a, const System& b) {
  if (a.systemUptime <= 0 || b.systemUptime <= 0) return false;
  double apart = a.currentTimeUtc - a.systemUptime - (b.currentTimeUtc - b.systemUptime);
  return std::fabs(apart) <= RunningClocks::kSameStartSeconds;
}

}  // namespace

void RunningClocks::take(Decoder::Decoded& decoded, const Zavro::Clock& clock, bool old) {
  uint64_t nowNs = clock.monotonicNs();
  for (auto& [path, value] : decoded.changes) {
    if (path.kind != Kind::system) continue;
    auto goesOn = decoded.goingOn.find(path);
    if (!value || goesOn == decoded.goingOn.end() || !goesOn->second) {
      running_.erase(path);
      continue;
    }
    const System& system = value->get<System>();
    if (running_.empty()) nextMs_ = msOf(nowNs) + kTickMs;
    auto [running, isNew] = running_.try_emplace(path);
    if (isNew || !startedTogether(running->second.system, system)) running->second.shown = system;
    running->second.system = system;
    running->second.writtenNs = nowNs - (old ? ageNs(system, clock.utcNs()) : 0);
    value = show(running->second, nowNs);
  }
}

std::vector<Snapshot::Change> RunningClocks::tick(const Zavro::Clock& clock, const Grace& grace) {
  uint64_t nowNs = clock.monotonicNs();
  std::vector<Snapshot::Change> changes;
  if (msOf(nowNs) < wakeAtMs()) return changes;
  nextMs_ = msOf(nowNs) + kTickMs;
  for (auto& [path, running] : running_) {
    if (!grace.holds(std::string(path.first()))) changes.emplace_back(path, show(running, nowNs));
  }
  return changes;
}

// A machine whose uptime is not known has none.
const System& RunningClocks::show(Running& running, uint64_t nowNs) {
  System system = running.system;
  double seconds = static_cast<double>(nowNs - running.writtenNs) / 1e9;
  if (system.systemUptime > 0) system.systemUptime += seconds;
  system.systemUptime = std::max(system.systemUptime, running.shown.systemUptime);
  // Never beyond what can be served.
  system.currentTimeUtc =
      std::max(std::min(system.currentTimeUtc + seconds, kUtcSeconds.max), running.shown.currentTimeUtc);
  return running.shown = system;
}

}  // namespace Kelstore::Etcd
