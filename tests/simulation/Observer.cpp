#include "tests/simulation/Observer.h"

#include <fmt/format.h>

#include <algorithm>

#include "tests/simulation/Universe.h"
#include "tests/support/Random.h"

namespace Simulation {
namespace {

constexpr std::array<const char*, kPipelines> kPipelineNames = {
    "TrelSnmpIfTableSm", "TrelSnmpReachabilityTableSm", "TrelSnmpHostResourcesSm",
    "TrelSnmpHrStorageTableSm"};

std::vector<TableId> tablesOf(PipelineId pipeline) {
  switch (pipeline) {
    case PipelineId::ifTable:
      return {TableId::baIf};
    case PipelineId::reachability:
      return {TableId::reachability};
    case PipelineId::host:
      return {TableId::system, TableId::processor};
    default:
      return {TableId::storage};
  }
}

}  // namespace

TableId tableOf(Stream stream) {
  switch (stream) {
    case Stream::link:
      return TableId::baIf;
    case Stream::reachability:
      return TableId::reachability;
    case Stream::system:
      return TableId::system;
    case Stream::processor:
      return TableId::processor;
    default:
      return TableId::storage;
  }
}

const char* nameOf(PipelineId pipeline) { return kPipelineNames[static_cast<size_t>(pipeline)]; }

std::string Element::text() const { return fmt::format("{}({},{})", static_cast<int>(stream), key, item); }

OutputLife& Life::output(TableId table) {
  return outputs.size() == 1 || outputs.front().table == table ? outputs.front() : outputs.back();
}

Observer::Observer(State& state, std::function<void(std::string_view)> log)
    : state_(state), log_(std::move(log)) {
  for (uint32_t i = 0; i < kKeys.size(); ++i) keyPlaces_[kKeys[i]] = i;
  for (uint32_t i = 0; i < kMounts.size(); ++i) mountPlaces_[kMounts[i]] = i;
  for (size_t set = 0; set < kSets; ++set) {
    subscriptions_[set] = state.set(set).mib->publisher().subscribe(
        [this, set](const TrelSnmp::TrelMib::Change& change) { published(set, change); });
  }
  for (const char* pipeline : kPipelineNames)
    Lumalog::levelIs(pipeline, log_ ? Lumalog::kMaxLevel : kStatementLevel);
  Lumalog::sinkIs(this);
}

Observer::~Observer() {
  Lumalog::sinkIs(nullptr);
  Lumalog::levelsReset();
}

void Observer::fail(std::string what) {
  if (log_) log_("!! " + what);
  if (failure_.empty()) failure_ = std::move(what);
}

void Observer::note(std::string_view what) {
  uint64_t hash = digest_ ^ what.size();
  while (what.size() >= sizeof(uint64_t)) {
    uint64_t word = 0;
    std::copy_n(what.data(), sizeof word, reinterpret_cast<char*>(&word));
    hash = (hash ^ word) * 0x9e3779b97f4a7c15;
    hash ^= hash >> 29;
    what.remove_prefix(sizeof word);
  }
  for (char character : what) hash = (hash ^ static_cast<unsigned char>(character)) * 0x100000001b3;
  digest_ = hash;
}

// -- The lives of pipelines

std::unique_ptr<Life> Observer::newLife(PipelineId id, const Wiring& wiring) {
  auto life = std::make_unique<Life>();
  life->id = id;
  life->wiring = wiring;
  for (TableId table : tablesOf(id)) {
    life->outputs.push_back({.table = table, .reconciling = !rows(wiring.mib, table).empty()});
  }
  return life;
}

void Observer::making(PipelineId id, const Wiring& wiring) {
  handedOver(id);
  lives_[static_cast<size_t>(id)] = newLife(id, wiring);
}

void Observer::made(PipelineId id, const TrelSnmp::Agent::Pipeline* pipeline) {
  current(id)->pipeline = pipeline;
}

void Observer::leaving(PipelineId id, std::function<bool()> stored) {
  auto place = static_cast<size_t>(id);
  leaving_[place] = std::move(lives_[place]);
  stored_ = std::move(stored);
}

void Observer::left(PipelineId id) { dropped(std::move(leaving_[static_cast<size_t>(id)])); }

void Observer::handedOver(PipelineId id) {
  auto& life = lives_[static_cast<size_t>(id)];
  if (!life) return;
  buried_.push_back(std::move(life));
}

std::unique_ptr<Life> Observer::detached(PipelineId id) {
  Life* life = current(id);
  if (life != nullptr) paused(id);
  return std::move(lives_[static_cast<size_t>(id)]);
}

void Observer::dropping(Life& life) { dropping_[static_cast<size_t>(life.id)] = &life; }

// Rows of members whose system figures were served stay; all others that the pipeline wrote are gone.
void Observer::dropped(std::unique_ptr<Life> life) {
  if (!life) return;
  Life*& dropping = dropping_[static_cast<size_t>(life->id)];
  if (dropping == life.get()) dropping = nullptr;
  eventIsOver();
  for (const auto& [element, handled] : life->last) {
    if (element.stream == Stream::system) continue;
    fail(fmt::format("{} was dropped, but did not withdraw {}", nameOf(life->id), element.text()));
  }
  const MirrorTable& table = rows(life->wiring.mib, TableId::baIf);
  for (const auto& [link, index] : life->cache) {
    auto at = table.find({index, 0});
    if (at != table.end() && Key{at->second.row.x, at->second.row.y} == link) {
      fail(fmt::format("dropped, but row {} of link {} stands", index, link.text()));
    }
  }
  for (const OutputLife& output : life->outputs) {
    if (!output.reconciling) continue;
    for (const auto& [key, row] : rows(life->wiring.mib, output.table)) {
      if (!output.seen.contains(key))
        fail(fmt::format("{} was dropped, but left row {} of an earlier life", nameOf(life->id), key.text()));
    }
  }
  buried_.push_back(std::move(life));
}

void Observer::paused(PipelineId id) {
  if (Life* life = current(id)) life->active = false;
}

void Observer::resumed(PipelineId id) {
  if (Life* life = current(id)) {
    life->active = true;
    life->dirty = true;
  }
}

void Observer::remapped(size_t set, uint32_t index) {
  for (auto* lives : {&lives_, &leaving_}) {
    auto& life = (*lives)[static_cast<size_t>(PipelineId::storage)];
    if (life && life->wiring.mappings == set) life->remapped[index] = life->events;
  }
}

void Observer::stateChanged(PipelineId id) {
  if (Life* life = current(id)) life->dirty = true;
}

Life* Observer::lifeFor(PipelineId id) {
  auto place = static_cast<size_t>(id);
  if (dropping_[place] != nullptr) return dropping_[place];
  bool old = leaving_[place] && stored_();
  return old ? leaving_[place].get() : lives_[place].get();
}

bool Observer::isGoing(const Life& life) const {
  auto place = static_cast<size_t>(life.id);
  return dropping_[place] == &life || leaving_[place].get() == &life;
}

bool Observer::mayHandle(const Life& life) const { return life.active || isGoing(life); }

// -- Publications

void Observer::published(size_t set, const TrelSnmp::TrelMib::Change& change) {
  ++publications_;
  TableId table = tableNamed(change.table);
  Op op{.insert = change.entry != nullptr, .key = keyOf(change.key), .row = {}};
  if (op.insert) {
    const auto& entry = *change.entry;
    switch (table) {
      case TableId::baIf:
        op.row = rowOf(static_cast<const TrelSnmp::TrelIfEntry&>(entry));
        break;
      case TableId::reachability:
        op.row = rowOf(static_cast<const TrelSnmp::TrelReachabilityEntry&>(entry));
        break;
      case TableId::system:
        op.row = rowOf(static_cast<const TrelSnmp::TrelHrSystemEntry&>(entry));
        break;
      case TableId::processor:
        op.row = rowOf(static_cast<const TrelSnmp::TrelProcessorEntry&>(entry));
        break;
      default:
        op.row = rowOf(static_cast<const TrelSnmp::TrelHrStorageEntry&>(entry));
    }
  }
  const uint64_t seen[] = {set << 8 | static_cast<uint64_t>(table) << 1 | (op.insert ? 1 : 0),
                           uint64_t{op.key.first} << 32 | op.key.second, op.row.record,
                           uint64_t{op.row.x} << 32 | op.row.y};
  note({reinterpret_cast<const char*>(seen), sizeof seen});
  if (log_) {
    log_(fmt::format("  {} {} {} {}", op.insert ? '+' : '-', nameOf(table), op.key.text(),
                     op.insert ? op.row.text() : ""));
  }
  if (!failure_.empty()) return;
  if (!ownWrites_ && !justified(set, table, op) && failure_.empty()) {
    fail(fmt::format("row {} of {} {} without a reason", op.key.text(), nameOf(table),
                     op.insert ? "is written (" + op.row.text() + ")" : "goes"));
  }
  applyToMirror(set, table, op);
  if (failure_.empty()) onPublication_();
}

bool Observer::justified(size_t set, TableId table, const Op& op) {
  if (frame_ && frame_->table == table && frame_->life->wiring.mib == set && nextOp(*frame_) == op) {
    advance(op);
    return true;
  }
  return !op.insert &&
         (byEndOfAdopter(set, table, op) || byReconciliation(set, table, op) || byCacheOfDropped(set, op));
}

// A row that a pipeline had taken over, and that goes with it because nothing has accounted for it since.
bool Observer::byEndOfAdopter(size_t set, TableId table, const Op& op) {
  for (size_t place = 0; place < kPipelines; ++place) {
    for (Life* life : {leaving_[place].get(), dropping_[place]}) {
      if (life == nullptr || life->wiring.mib != set) continue;
      for (const OutputLife& output : life->outputs) {
        if (output.table == table && output.reconciling && !output.seen.contains(op.key)) return true;
      }
    }
  }
  return false;
}

// A row that nothing has accounted for since the pipeline started, once all that is there has been looked at.
bool Observer::byReconciliation(size_t set, TableId table, const Op& op) {
  for (auto& life : lives_) {
    if (!life || life->wiring.mib != set ||
        (life->outputs.front().table != table && life->outputs.back().table != table))
      continue;
    OutputLife& output = life->output(table);
    if (!output.reconciling || output.ready || output.seen.contains(op.key)) return false;
    for (const auto& [key, columns] : claims(*life, table)) {
      if (key != Oracle::Pair(op.key.first, op.key.second) || mappedAnew(*life, table, op.key)) continue;
      bool pending = table == TableId::baIf && !life->handled(columns, op.key.first);
      if (!pending)
        fail(fmt::format("row {} of {} has a source, but is reconciled away", op.key.text(), nameOf(table)));
    }
    return true;
  }
  return false;
}

bool Observer::byCacheOfDropped(size_t set, const Op& op) {
  constexpr auto kPlace = static_cast<size_t>(PipelineId::ifTable);
  for (Life* life : {dropping_[kPlace], leaving_[kPlace].get()}) {
    if (life == nullptr || life->wiring.mib != set) continue;
    const MirrorTable& table = rows(set, TableId::baIf);
    auto at = table.find(op.key);
    if (at == table.end()) continue;
    auto cached = life->cache.find(Key{at->second.row.x, at->second.row.y});
    if (cached != life->cache.end() && cached->second == op.key.first) return true;
  }
  return false;
}

void Observer::applyToMirror(size_t set, TableId table, const Op& op) {
  Mirror& mirror = mirrors_[set];
  auto place = static_cast<size_t>(table);
  MirrorTable& rows = mirror.tables[place];
  mirror.changed[place] = true;
  auto at = rows.find(op.key);
  if (!op.insert) {
    if (at == rows.end())
      return fail(fmt::format("row {} of {} goes, but was not there", op.key.text(), nameOf(table)));
    gone_.push_back({set, table, op.key, at->second.born, looks_});
    rows.erase(at);
    ++mirror.versions[place];
    return;
  }
  if (at != rows.end()) {
    if (table != TableId::storage)
      fail(fmt::format("row {} of {} is written over", op.key.text(), nameOf(table)));
    at->second.row = op.row;
    return;
  }
  uint64_t born = steps_;
  for (const Gone& gone : gone_) {
    if (gone.set == set && gone.table == table && gone.key == op.key && gone.looks == looks_)
      born = gone.born;
  }
  rows[op.key] = {op.row, born};
  ++mirror.versions[place];
}

}  // namespace Simulation
