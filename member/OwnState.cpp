#include "member/OwnState.h"

#include <algorithm>
#include <set>
#include <utility>

#include "kelstore/Document.h"
#include "member/Figures.h"
#include "member/SharedIndexes.h"
#include "member/Trace.h"
#include "runtime/Text.h"

namespace Member {
namespace {

constexpr uint64_t kNsPerSecond = 1'000'000'000;
// Twice the longest timeout of an echo.
constexpr uint64_t kEchoMs = 120'000;
// It ends with "..." where it was cut.
constexpr size_t kMaxErrorBytes = Kelstore::kMaxTextBytes - 3;

}  // namespace

using Kelstore::Kind;
using Entry = Kelstore::Snapshot::Entry;

OwnState::OwnState(const Config& config, std::shared_ptr<LocalMachine> machine,
                   std::shared_ptr<EchoProbe> probe, const Links& links, Runtime::Io& io,
                   const Zavro::Clock& clock, std::function<void()> changed)
    : config_(config),
      probe_(std::move(probe)),
      links_(links),
      echoes_(io, kEchoMs),
      clock_(clock),
      changed_(std::move(changed)),
      // Storage mappings are the cluster's, so no indexes are kept here.
      figures_({config.member, config.figuresIntervalSeconds, ""}, std::move(machine), io, clock,
               [this] { looked(); }) {
  for (const NeighbourConfig& neighbour : config_.neighbours) neighbours_.push_back(makeNeighbour(neighbour));
}

std::unique_ptr<Neighbour> OwnState::makeNeighbour(const NeighbourConfig& neighbour) {
  return std::make_unique<Neighbour>(neighbour, probe_, echoes_, clock_, [this] { changed_(); });
}

OwnState::NeighbourChanges OwnState::configIs(const Config& config) {
  NeighbourChanges changes;
  config_ = config;
  auto before = std::exchange(neighbours_, {});
  for (const NeighbourConfig& neighbour : config_.neighbours) {
    auto found = std::find_if(before.begin(), before.end(),
                              [&neighbour](const auto& one) { return one->config().isSameLink(neighbour); });
    if (found == before.end()) {
      ++changes.added;
      neighbours_.push_back(makeNeighbour(neighbour));
    } else {
      ++((*found)->config() == neighbour ? changes.same : changes.changed);
      neighbours_.push_back(std::move(*found));
      before.erase(found);
    }
  }
  changes.gone = before.size();
  // They call changed_, which reads all neighbours, so all of them must be there.
  for (size_t i = 0; i < neighbours_.size(); ++i) neighbours_[i]->configIs(config_.neighbours[i]);
  figures_.intervalIs(config_.figuresIntervalSeconds);
  linksChanged();
  return changes;
}

void OwnState::start() {
  figures_.start();
  linksChanged();
}

void OwnState::linksChanged() {
  if (!links_.known()) return;
  for (const auto& neighbour : neighbours_) neighbour->deviceIs(links_.find(neighbour->config().device));
  tellSharedIndexes();
  changed_();
}

// Once, until they differ.
void OwnState::tellSharedIndexes() {
  std::vector<PublishedIndex> published;
  for (const auto& neighbour : neighbours_) {
    published.push_back({neighbour->config().interface, neighbour->ifIndex()});
  }
  std::vector<std::string> shared = sharedIndexes(published);
  for (const std::string& line : shared) {
    if (std::find(toldShared_.begin(), toldShared_.end(), line) != toldShared_.end()) continue;
    traceHandle.trace(Lumalog::kErrorLevel, "{}", line);
  }
  toldShared_ = std::move(shared);
}

// The answers of a look are published together. If one is missing, the others wait for an interval at most.
void OwnState::looked() {
  uint64_t nowNs = clock_.monotonicNs();
  uint64_t intervalNs = config_.figuresIntervalSeconds * kNsPerSecond;
  if (!figures_.lookedAtAll()) {
    if (!waitingSinceNs_) waitingSinceNs_ = nowNs;
    if (nowNs - *waitingSinceNs_ < intervalNs) return;
  }
  waitingSinceNs_.reset();
  for (const auto& neighbour : neighbours_) neighbour->lookAtClock();
  figuresKnown_ = figures_.heard();
  figuresNow_ = figures_.entries();
  figuresAtNs_ = nowNs;
  for (const auto& [path, value] : figuresNow_) {
    if (path.kind != Kind::processor || value.get<Kelstore::Processor>().load == kUnknownLoad) continue;
    earlierLoads_.erase(path);
  }
  noteUnread(nowNs);
  addUnread(figuresNow_);
  changed_();
}

void OwnState::noteUnread(uint64_t nowNs) {
  std::set<std::string> there;
  for (const Collector* collector : figures_.collectors()) {
    const Kelstore::CollectorStatus& status = collector->status();
    there.insert(status.name);
    // A name can be too long for the state.
    if (!collector->troubled() || status.name.size() > Kelstore::kMaxNameBytes) continue;
    auto state = status.state == Collector::State::fails ? Kelstore::Unread::fails : Kelstore::Unread::hangs;
    Kelstore::Unread now{state, static_cast<double>(status.sinceUtcNs) / 1e9,
                         Runtime::shortened(Runtime::escaped(status.error), kMaxErrorBytes)};
    auto [at, begins] = unread_.try_emplace(status.name, Trouble{now, nowNs, nowNs});
    Trouble& trouble = at->second;
    trouble.lastNs = nowNs;
    now.sinceUtc = trouble.said.sinceUtc;
    if (now == trouble.said || nowNs - trouble.saidNs < kUnreadStaysSeconds * kNsPerSecond) continue;
    trouble.said = now;
    trouble.saidNs = nowNs;
  }
  std::erase_if(unread_, [&](const auto& one) {
    return !there.contains(one.first) || nowNs - one.second.lastNs >= kUnreadStaysSeconds * kNsPerSecond;
  });
}

void OwnState::addUnread(std::vector<Entry>& entries) const {
  std::string own = std::to_string(config_.member);
  for (const auto& [name, trouble] : unread_) entries.push_back({{Kind::unread, own, name}, trouble.said});
}

std::vector<Entry> OwnState::entries() const {
  std::vector<Entry> entries = figuresNow_;
  for (auto& [path, value] : entries) {
    if (path.kind == Kind::system) value = asOfNow(value.get<Kelstore::System>());
  }
  addEarlierLoads(entries);
  addNeighbours(entries);
  return entries;
}

// The clock may have been set since the last look; the uptime goes on all the same.
Kelstore::System OwnState::asOfNow(Kelstore::System system) const {
  double passed = static_cast<double>(clock_.monotonicNs() - figuresAtNs_) / 1e9;
  if (system.systemUptime > 0) system.systemUptime += passed;
  system.currentTimeUtc = static_cast<double>(clock_.utcNs()) / 1e9;
  return system;
}

void OwnState::earlierIs(const LeaseStore::Holdings& holdings) {
  std::string own = std::to_string(config_.member);
  for (const auto& [path, held] : holdings) {
    if (path.first() != own || held.lease == LeaseStore::kNoLease) continue;
    for (const Entry& entry : Kelstore::parseValue(path, held.text).values) earlierIs(entry);
  }
  changed_();
}

void OwnState::earlierIs(const Entry& entry) {
  const auto& [path, value] = entry;
  if (path.kind == Kind::processor) {
    if (value.get<Kelstore::Processor>().load != kUnknownLoad) earlierLoads_.emplace(path, value);
  }
  if (path.kind != Kind::reachability) return;
  const auto& report = value.get<Kelstore::Reachability>();
  if (report.state == Trel::ReachabilityState::unrecognized) return;  // of a newer version that ran before
  for (const auto& neighbour : neighbours_) {
    const NeighbourConfig& config = neighbour->config();
    bool same =
        std::to_string(config.member) == path.second() && report.intf == Lanix::IntfId(config.interface);
    if (same) neighbour->earlierIs(report.state, report.lastChangeNs);
  }
}

// In place of those that are not measured yet.
void OwnState::addEarlierLoads(std::vector<Entry>& entries) const {
  if (earlierLoads_.empty()) return;
  for (auto& [path, value] : entries) {
    if (path.kind != Kind::processor || value.get<Kelstore::Processor>().load != kUnknownLoad) continue;
    if (auto found = earlierLoads_.find(path); found != earlierLoads_.end()) value = found->second;
  }
}

void OwnState::addNeighbours(std::vector<Entry>& entries) const {
  std::string own = std::to_string(config_.member);
  for (const auto& neighbour : neighbours_) {
    const NeighbourConfig& config = neighbour->config();
    const NeighbourReachability& reachability = neighbour->reachability();
    std::string member = std::to_string(config.member);
    Lanix::IntfId intf(config.interface);
    if (uint32_t ifIndex = neighbour->ifIndex(); ifIndex != 0) {
      entries.push_back({{Kind::interface, config.interface, ""},
                         Kelstore::Interface{ifIndex, neighbour->device()->index}});
    }
    entries.push_back({{Kind::link, own, member}, Kelstore::Link{intf}});
    entries.push_back({{Kind::reachability, own, member},
                       Kelstore::Reachability{reachability.state(), intf, reachability.lastChangeNs()}});
  }
}

}  // namespace Member
