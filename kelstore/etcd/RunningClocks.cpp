#include "kelstore/etcd/RunningClocks.h"

#include <algorithm>

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
    Running running{system, nowNs - (old ? ageNs(system, clock.utcNs()) : 0)};
    if (running_.empty()) nextMs_ = msOf(nowNs) + kTickMs;
    running_[path] = running;
    value = asOf(running, nowNs);
  }
}

std::vector<Snapshot::Change> RunningClocks::tick(const Zavro::Clock& clock, const Grace& grace) {
  uint64_t nowNs = clock.monotonicNs();
  std::vector<Snapshot::Change> changes;
  if (msOf(nowNs) < wakeAtMs()) return changes;
  nextMs_ = msOf(nowNs) + kTickMs;
  for (const auto& [path, running] : running_) {
    if (!grace.holds(std::string(path.first()))) changes.emplace_back(path, asOf(running, nowNs));
  }
  return changes;
}

// A machine whose uptime is not known has none.
System RunningClocks::asOf(const Running& running, uint64_t nowNs) {
  System system = running.system;
  double seconds = static_cast<double>(nowNs - running.writtenNs) / 1e9;
  // Never beyond what can be served.
  system.currentTimeUtc = std::min(system.currentTimeUtc + seconds, kUtcSeconds.max);
  if (system.systemUptime > 0) system.systemUptime += seconds;
  return system;
}

}  // namespace Kelstore::Etcd
