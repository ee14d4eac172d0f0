#include "LocalSource.h"

#include <fmt/format.h>

#include <algorithm>

#include "Figures.h"
#include "Text.h"
#include "lumalog/Lumalog.h"

namespace Member {
namespace {

using Kelstore::Kind;
using Kelstore::Path;

const Lumalog::Handle traceHandle("Member");
constexpr int kWarningLevel = 1;

constexpr const char* kName = "local";

bool isHostResource(Kind kind) {
  switch (kind) {
    case Kind::system:
    case Kind::memory:
    case Kind::processors:
    case Kind::processor:
    case Kind::storageAreas:
    case Kind::storage:
      return true;
    default:
      return false;
  }
}

// The storage mappings that sources have, as far as they count.
class Mappings {
 public:
  // Overrides what was added before.
  void add(const Kelstore::Snapshot& snapshot) {
    for (const auto& [path, value] : snapshot) {
      if (path.kind > Kind::memoryMapping) break;  // in the order of kinds
      if (const auto* mapping = std::get_if<Kelstore::Mapping>(&value)) indexOf_[path] = mapping->index;
    }
  }
  void added() {
    for (const auto& [path, index] : indexOf_) pathsAt_[index].insert(path);
  }
  bool has(const Path& path) const { return indexOf_.contains(path); }
  // Whether the index is one of theirs, for another row than that of the path.
  bool take(uint32_t index, const Path& path) const {
    auto found = pathsAt_.find(index);
    return found != pathsAt_.end() && !found->second.contains(path);
  }

 private:
  std::map<Path, uint32_t> indexOf_;
  std::map<uint32_t, std::set<Path>> pathsAt_;
};

}  // namespace

LocalSource::LocalSource(const Settings& settings, std::shared_ptr<Machine> machine, Kelstore::Store& store,
                         Kelstore::Io& io, const Zavro::Clock& clock)
    : member_(std::to_string(settings.member)),
      intervalMs_(uint64_t{settings.intervalSeconds} * 1000),
      machine_(std::move(machine)),
      store_(store),
      io_(io),
      clock_(clock),
      layer_(store.layerIs([own = member_](Kind kind, std::string_view first) {
        return isHostResource(kind) && first == own;
      })),
      mappingsLayer_(store.lowestLayerIs()),
      storage_(machine_, settings.indexFile, io, clock, [this] { publishSoon(); }) {
  collectorIs("uptime", &Machine::uptime, &LocalSource::uptimeIs);
  collectorIs("users", &Machine::users, &LocalSource::usersIs);
  collectorIs("processes", &Machine::processes, &LocalSource::processesIs);
  collectorIs("memory", &Machine::memory, &LocalSource::memoryIs);
  collectorIs("processors", &Machine::processors, &LocalSource::processorsIs);
}

template <class Answer>
void LocalSource::collectorIs(std::string name, Result<Answer> (Machine::*question)(),
                              void (LocalSource::*take)(Answer)) {
  auto ask = asking<Answer>([machine = machine_, question] { return ((*machine).*question)(); },
                            [this, take](Answer answer) { (this->*take)(std::move(answer)); });
  collectors_.push_back(
      std::make_unique<Collector>(std::move(name), std::move(ask), io_, clock_, [this] { publishSoon(); }));
}

void LocalSource::processorsIs(std::vector<ProcessorTime> processors) {
  std::map<uint32_t, ProcessorTime> before;
  for (const ProcessorTime& time : processors_.value_or(std::vector<ProcessorTime>())) {
    before[time.number] = time;
  }
  loads_.clear();
  for (const ProcessorTime& time : processors) {
    auto earlier = before.find(time.number);
    loads_[time.number] = earlier == before.end() ? kUnknownLoad : loadBetween(earlier->second, time);
  }
  processors_ = std::move(processors);
}

void LocalSource::start() {
  storage_.start();
  look(kSecondLookMs);
}

void LocalSource::look(uint64_t nextMs) {
  nextLook_ = io_.after(nextMs, [this] { look(intervalMs_); });
  for (const auto& collector : collectors_) collector->collect();
  storage_.look();
}

// Answers that come together are published together.
void LocalSource::publishSoon() {
  if (!publication_) publication_ = io_.after(0, [this] { publish(); });
}

void LocalSource::publish() {
  publication_.reset();
  publish(layer_, figures());
  publish(mappingsLayer_, mappings());
  storage_.keepIndexes();
  auto all = collectors();
  bool heard = std::all_of(all.begin(), all.end(), [](const Collector* one) { return one->heard(); });
  if (settled_ || !heard) return;
  settled_ = true;
  for (auto layer : {layer_, mappingsLayer_}) store_.settledIs(layer);
}

void LocalSource::publish(Kelstore::Store::Layer layer, Kelstore::Snapshot snapshot) {
  auto before = store_.snapshot(layer);
  auto now = std::make_shared<const Kelstore::Snapshot>(std::move(snapshot));
  auto changed = Kelstore::differences(*before, *now);
  if (changed.empty()) return;
  lastChangeUtcNs_ = clock_.utcNs();
  store_.snapshotIs(layer, std::move(now), std::move(changed));
}

// A figure of the system that was never known is 0, as the others are not to wait for it.
Kelstore::Snapshot LocalSource::figures() const {
  std::vector<Kelstore::Snapshot::Entry> entries;
  auto add = [&](Kind kind, const std::string& second, const Kelstore::Value& value) {
    entries.push_back({{kind, member_, second}, value});
  };
  if (uptimeSeconds_ || users_ || processes_ || memory_) {
    add(Kind::system, "",
        Kelstore::System{uptimeSeconds_.value_or(0), static_cast<double>(clock_.utcNs()) / 1e9,
                         users_.value_or(0), processes_.value_or(0), memory_ ? kib(memory_->total) : 0});
  }
  if (memory_) add(Kind::memory, "", memoryOf(*memory_));
  if (processors_) add(Kind::processors, "", Kelstore::Present());
  for (const auto& [number, load] : loads_) {
    add(Kind::processor, std::to_string(processorIndex(number)), Kelstore::Processor{load});
  }
  if (storage_.known()) add(Kind::storageAreas, "", Kelstore::Present());
  for (const auto& [mountPoint, storage] : storage_.figures()) add(Kind::storage, mountPoint, storage);
  return Kelstore::Snapshot(std::move(entries));
}

Kelstore::Snapshot LocalSource::mappings() {
  Mappings others;
  for (Kelstore::Store::Layer layer = 0; layer < store_.layers(); ++layer) {
    if (layer != mappingsLayer_) others.add(*store_.snapshot(layer));
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
                        Kelstore::inQuotes(mapping.description));
    }
  }
  auto taken = [&others](uint32_t index, const std::string& mountPoint) {
    return others.take(index, {Kind::mountMapping, mountPoint, ""});
  };
  for (auto& [mountPoint, mapping] : storage_.mappings(taken)) {
    entries.push_back({{Kind::mountMapping, mountPoint, ""}, mapping});
  }
  return Kelstore::Snapshot(std::move(entries));
}

std::vector<const Collector*> LocalSource::collectors() const {
  std::vector<const Collector*> all;
  for (const auto& collector : collectors_) all.push_back(collector.get());
  for (const Collector* collector : storage_.collectors()) all.push_back(collector);
  return all;
}

Kelstore::SourceStatus LocalSource::status() const {
  using State = Kelstore::SourceStatus::State;
  Kelstore::SourceStatus status;
  status.name = kName;
  status.state = settled_ ? State::current : State::loading;
  status.paths = store_.snapshot(layer_)->size() + store_.snapshot(mappingsLayer_)->size();
  status.lastChangeUtcNs = lastChangeUtcNs_;
  for (const Collector* collector : collectors()) {
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
