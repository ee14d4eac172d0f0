#include "member/LocalSource.h"

#include <fmt/format.h>

#include "member/Figures.h"
#include "member/Trace.h"
#include "runtime/Text.h"

namespace Member {
namespace {

using Kelstore::Kind;
using Kelstore::Path;

using Lumalog::kWarningLevel;

constexpr const char* kName = "local";

// What concerns the figures that this source provides.
bool isOfFigures(Kind kind) {
  using Entity = Kelstore::MemberEntity;
  Entity entity = Kelstore::specOf(kind).entity;
  return entity == Entity::hostResources || entity == Entity::unread || entity == Entity::name;
}

// The storage mappings of the other sources that count.
class Mappings {
 public:
  // Overrides what was added before.
  void add(const Kelstore::Snapshot& snapshot) {
    for (Kind kind : {Kind::mountMapping, Kind::memoryMapping}) {
      snapshot.forEach(kind, [this](const Path& path, const Kelstore::Value& value) {
        indexOf_[path] = value.get<Kelstore::Mapping>().index;
      });
    }
  }
  void added() {
    for (const auto& [path, index] : indexOf_) pathsAt_[index].insert(path);
  }
  bool has(const Path& path) const { return indexOf_.contains(path); }
  // Whether one of them has the index, for another path than this one.
  bool take(uint32_t index, const Path& path) const {
    auto found = pathsAt_.find(index);
    return found != pathsAt_.end() && !found->second.contains(path);
  }

 private:
  std::map<Path, uint32_t> indexOf_;
  std::map<uint32_t, std::set<Path>> pathsAt_;
};

}  // namespace

LocalSource::LocalSource(const Settings& settings, std::shared_ptr<LocalMachine> machine,
                         Kelstore::LayeredState& layers, Runtime::Io& io, const Zavro::Clock& clock)
    : layers_(layers),
      clock_(clock),
      layer_(layers.addLayer([own = std::to_string(settings.member)](Kind kind, std::string_view first) {
        return isOfFigures(kind) && first == own;
      })),
      mappingsLayer_(layers.addLowestLayer()),
      figures_(settings, std::move(machine), io, clock, [this] { publish(); }) {}

void LocalSource::publish() {
  publish(layer_, Kelstore::Snapshot(figures_.entries()));
  publish(mappingsLayer_, mappings());
  figures_.storage().keepIndexes();
  if (settled_ || !figures_.heard()) return;
  settled_ = true;
  for (auto layer : {layer_, mappingsLayer_}) layers_.settledIs(layer);
}

void LocalSource::publish(Kelstore::LayeredState::Layer layer, Kelstore::Snapshot snapshot) {
  auto before = layers_.snapshot(layer);
  auto now = std::make_shared<const Kelstore::Snapshot>(std::move(snapshot));
  auto changed = Kelstore::differences(*before, *now);
  if (changed.empty()) return;
  lastChangeUtcNs_ = clock_.utcNs();
  layers_.snapshotIs(layer, std::move(now), std::move(changed));
}

Kelstore::Snapshot LocalSource::mappings() {
  Mappings others;
  for (Kelstore::LayeredState::Layer layer = 0; layer < layers_.layers(); ++layer) {
    if (layer != mappingsLayer_) others.add(*layers_.snapshot(layer));
  }
  others.added();
  std::vector<Kelstore::Snapshot::Entry> entries;
  for (auto& [memory, mapping] : memoryMappings()) {
    Path path{Kind::memoryMapping, std::to_string(memory), ""};
    if (!others.take(mapping.index, path)) {
      leftOut_.erase(memory);
      entries.emplace_back(std::move(path), std::move(mapping));
    } else if (!others.has(path) && leftOut_.insert(memory).second) {
      traceHandle.trace(kWarningLevel, "storage index {} is another source's: {} is left out", mapping.index,
                        Runtime::inQuotes(mapping.description));
    }
  }
  auto taken = [&others](uint32_t index, const std::string& mountPoint) {
    return others.take(index, {Kind::mountMapping, mountPoint, ""});
  };
  for (auto& [mountPoint, mapping] : figures_.storage().mappings(taken)) {
    entries.push_back({{Kind::mountMapping, mountPoint, ""}, mapping});
  }
  return Kelstore::Snapshot(std::move(entries));
}

Kelstore::SourceStatus LocalSource::status() const {
  using State = Kelstore::SourceStatus::State;
  Kelstore::SourceStatus status;
  status.name = kName;
  status.state = settled_ ? State::current : State::loading;
  status.paths = layers_.snapshot(layer_)->size() + layers_.snapshot(mappingsLayer_)->size();
  status.lastChangeUtcNs = lastChangeUtcNs_;
  for (const Collector* collector : figures_.collectors()) {
    const Kelstore::CollectorStatus& one = collector->status();
    status.collectors.push_back(one);
    if (one.error.empty()) continue;
    if (settled_) status.state = State::partial;
    if (status.error.empty()) {
      status.error = fmt::format("collector {} {}: {}", one.name, Kelstore::stateName(one.state), one.error);
    }
  }
  return status;
}

}  // namespace Member
