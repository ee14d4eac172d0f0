#include "Follower.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>

#include "Random.h"
#include "Universe.h"

namespace Simulation {
namespace {

constexpr int kStatementLevel = 7;
constexpr std::array<const char*, kPipelines> kPipelineNames = {
    "TrelSnmpIfTableSm", "TrelSnmpReachabilityTableSm", "TrelSnmpHostResourcesSm",
    "TrelSnmpHrStorageTableSm"};

PipelineId pipelineOf(Stream stream) {
  switch (stream) {
    case Stream::link:
      return PipelineId::ifTable;
    case Stream::reachability:
      return PipelineId::reachability;
    case Stream::system:
    case Stream::processor:
      return PipelineId::host;
    default:
      return PipelineId::storage;
  }
}

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

template <class Number>
Number numberIn(std::string_view text) {
  Number number{};
  std::from_chars(text.data(), text.data() + text.size(), number);
  return number;
}

// What follows "<name>=" where that stands last, cut off from the text with it.
std::string_view takeLast(std::string_view& text, std::string_view name) {
  size_t at = text.rfind(name);
  if (at == std::string_view::npos) return {};
  std::string_view value = text.substr(at + name.size());
  text = text.substr(0, at);
  return value;
}

// The text of what an optional holds; nothing for "None".
std::optional<std::string_view> optionalIn(std::string_view text) {
  constexpr std::string_view kBefore = "Optional( ";
  constexpr std::string_view kAfter = " )";
  if (!text.starts_with(kBefore)) return std::nullopt;
  return text.substr(kBefore.size(), text.size() - kBefore.size() - kAfter.size());
}

uint64_t memorySerialIn(std::string_view text) {
  HostResources::MemInfo::Amounts amounts;
  for (auto* amount :
       {&amounts.total, &amounts.free, &amounts.available, &amounts.nonBuffer, &amounts.nonCache}) {
    text.remove_prefix(text.find('=') + 1);
    if (auto number = optionalIn(text)) *amount = numberIn<uint32_t>(*number);
  }
  HostResources::MemInfo record(amounts);
  return serial(&record);
}

// The serial of the record that such a text is of.
uint64_t serialIn(Stream stream, std::string_view text) {
  auto after = [&text](std::string_view name) { return text.substr(text.find(name) + name.size()); };
  switch (stream) {
    case Stream::reachability:
      return numberIn<uint64_t>(after("lastChange="));
    case Stream::system:
      return numberIn<uint64_t>(after("#"));
    case Stream::processor:
      return static_cast<uint16_t>(numberIn<int16_t>(after("load=")));
    case Stream::mount:
      return numberIn<uint64_t>(after("size="));
    default:
      return memorySerialIn(text);
  }
}

// A statement of a pipeline: how its trace begins, and what its values are called.
struct Statement {
  Stream stream;
  std::string_view begin;
  std::string_view item;  // empty: the stream has one element for each directory key
  std::string_view value;
};
constexpr std::array<Statement, 5> kStatements = {{
    {Stream::reachability,
     "reachabilityStatusStream = from( reachabilityDir.entityPtr< ReachabilityStatus "
     ">[].reachabilityStatus[] "
     "): dirKey=",
     " nbr=", " reachabilityStateOpt="},
    {Stream::system,
     "hrSystemTableStream = from( hostResourcesDir.entityPtr< HostResources::HostResources >[] ): dirKey=",
     "", " hrOpt="},
    {Stream::processor,
     "processorTableStream = from( hostResourcesDir.entityPtr< HostResources::HostResources "
     ">[].processorTable[] ): dirKey=",
     " processorIndex=", " processorOpt="},
    {Stream::mount,
     "mountStream = from( hostResourcesDir.entityPtr< HostResources::HostResources >[].storageInfoTable[] ): "
     "dirKey=",
     " mountpt=", " storageOpt="},
    {Stream::memory,
     "memStream = from( hostResourcesDir.entityPtr< HostResources::HostResources >[].memInfo ): dirKey=", "",
     " memInfoOpt="},
}};
constexpr std::string_view kLinkStatement =
    "trelIfTableStream = merge( topoConfigStream, ifMibIfIndexStream ): localMemberId=";

}  // namespace

const char* nameOf(PipelineId pipeline) { return kPipelineNames[static_cast<size_t>(pipeline)]; }

std::string Element::text() const { return fmt::format("{}({},{})", static_cast<int>(stream), key, item); }

OutputLife& Life::output(TableId table) {
  return outputs.size() == 1 || outputs.front().table == table ? outputs.front() : outputs.back();
}

Follower::Follower(State& state, std::function<void(std::string_view)> log)
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

Follower::~Follower() {
  Lumalog::sinkIs(nullptr);
  Lumalog::levelsReset();
}

void Follower::fail(std::string what) {
  if (log_) log_("!! " + what);
  if (failure_.empty()) failure_ = std::move(what);
}

void Follower::note(std::string_view what) {
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

std::unique_ptr<Life> Follower::newLife(PipelineId id, const Wiring& wiring) {
  auto life = std::make_unique<Life>();
  life->id = id;
  life->wiring = wiring;
  for (TableId table : tablesOf(id)) {
    life->outputs.push_back({.table = table, .reconciling = !rows(wiring.mib, table).empty()});
  }
  return life;
}

void Follower::making(PipelineId id, const Wiring& wiring) {
  handedOver(id);
  lives_[static_cast<size_t>(id)] = newLife(id, wiring);
}

void Follower::made(PipelineId id, const TrelSnmp::Agent::Pipeline* pipeline) {
  current(id)->pipeline = pipeline;
}

void Follower::leaving(PipelineId id, std::function<bool()> stored) {
  auto place = static_cast<size_t>(id);
  leaving_[place] = std::move(lives_[place]);
  stored_ = std::move(stored);
}

void Follower::left(PipelineId id) { dropped(std::move(leaving_[static_cast<size_t>(id)])); }

void Follower::handedOver(PipelineId id) {
  auto& life = lives_[static_cast<size_t>(id)];
  if (!life) return;
  for (Frame& frame : frames_) frame.overtaken |= frame.life == life.get();
  buried_.push_back(std::move(life));
}

std::unique_ptr<Life> Follower::detached(PipelineId id) {
  Life* life = current(id);
  if (life != nullptr) paused(id);
  return std::move(lives_[static_cast<size_t>(id)]);
}

void Follower::dropping(Life& life) {
  dropping_[static_cast<size_t>(life.id)] = &life;
  droppingDepth_ = depth_;
}

// Rows of members whose system figures were served stay; all others that the pipeline wrote are gone.
void Follower::dropped(std::unique_ptr<Life> life) {
  if (!life) return;
  Life*& dropping = dropping_[static_cast<size_t>(life->id)];
  if (dropping == life.get()) dropping = nullptr;
  if (depth_ == 0) popFrames(0);
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
  buried_.push_back(std::move(life));
}

void Follower::paused(PipelineId id) {
  Life* life = current(id);
  if (life == nullptr) return;
  life->active = false;
  life->pausedIn = depth_ > 0 ? steps_ : 0;
  for (Frame& frame : frames_) frame.overtaken |= frame.life == life;
}

void Follower::resumed(PipelineId id) {
  if (Life* life = current(id)) {
    life->active = true;
    life->dirty = true;
  }
}

void Follower::remapped(size_t set, uint32_t index) {
  for (auto* lives : {&lives_, &leaving_}) {
    auto& life = (*lives)[static_cast<size_t>(PipelineId::storage)];
    if (life && life->wiring.mappings == set) life->remapped.insert(index);
  }
}

void Follower::stateChanged(PipelineId id) {
  if (Life* life = current(id)) life->dirty = true;
}

Life* Follower::lifeFor(PipelineId id) {
  auto place = static_cast<size_t>(id);
  if (dropping_[place] != nullptr && depth_ == droppingDepth_) return dropping_[place];
  bool old = leaving_[place] && depth_ == 0 && stored_();
  return old ? leaving_[place].get() : lives_[place].get();
}

bool Follower::isGoing(const Life& life) const {
  auto place = static_cast<size_t>(life.id);
  return dropping_[place] == &life || leaving_[place].get() == &life;
}

bool Follower::mayHandle(const Life& life) const {
  return life.active || life.pausedIn == steps_ || isGoing(life);
}

// -- Events, as traces tell them

void Follower::trace(std::string_view handle, int level, std::string_view text) {
  note(handle);
  note(text);
  if (log_) log_(fmt::format("{:{}}{}/{} {}", "", 4 * depth_ + 2, handle, level, text));
  if (level != kStatementLevel || !failure_.empty()) return;
  if (text.starts_with(kLinkStatement)) {
    std::string_view remote = takeLast(text, " remoteMemberId=");
    linkEvent(numberIn<uint32_t>(text.substr(kLinkStatement.size())), numberIn<uint32_t>(remote));
    return;
  }
  for (const Statement& statement : kStatements) {
    if (!text.starts_with(statement.begin)) continue;
    std::string_view value = takeLast(text, statement.value);
    Element element{.stream = statement.stream, .key = 0, .item = 0};
    if (!statement.item.empty()) {
      std::string_view item = takeLast(text, statement.item);
      element.item = statement.stream == Stream::mount ? mountPlaces_.at(item) : numberIn<uint32_t>(item);
    }
    element.key = keyPlaces_.at(text.substr(statement.begin.size()));
    auto record = optionalIn(value);
    Life* life = lifeFor(pipelineOf(statement.stream));
    if (life == nullptr) return fail(fmt::format("nobody is there to say: {}", text));
    event({life, element, record ? std::optional(serialIn(statement.stream, *record)) : std::nullopt});
    return;
  }
}

std::optional<uint64_t> Follower::currentValue(const Life& life, const Element& element,
                                               uint64_t& entity) const {
  std::string_view key = kKeys[element.key];
  auto found = [](const auto* value) {
    return value != nullptr ? std::optional(serial(value->get())) : std::nullopt;
  };
  entity = kNoRecord;
  if (element.stream == Stream::reachability) {
    const auto* reach = reachAt(*state_.set(life.wiring.reachabilityDir).reachabilityDir, key);
    if (reach == nullptr) return std::nullopt;
    entity = serial(reach);
    return found(reach->reachabilityStatus().find(Trel::MemberId(static_cast<uint8_t>(element.item))));
  }
  const auto* host = hostAt(*state_.set(life.wiring.hostResourcesDir).hostResourcesDir, key);
  if (host == nullptr) return std::nullopt;
  entity = serial(host);
  switch (element.stream) {
    case Stream::system:
      return entity;
    case Stream::processor:
      return found(host->processorTable().find(element.item));
    case Stream::mount:
      return found(host->storageInfoTable().find(kMounts[element.item]));
    default:
      return host->memInfo() ? std::optional(serial(host->memInfo().get())) : std::nullopt;
  }
}

void Follower::event(const Event& event) {
  Life& life = *event.life;
  const Element& element = event.element;
  life.dirty = true;
  if (!mayHandle(life)) return fail(fmt::format("inactive, but handles {}", element.text()));
  uint64_t entity = kNoRecord;
  std::optional<uint64_t> now = currentValue(life, element, entity);
  if (event.value) {
    if (event.value != now && !nestedInStep_) {
      return fail(fmt::format("{} is handled with {}, but is {}", element.text(), *event.value,
                              now.value_or(kNoRecord)));
    }
    // From within a change it may still be the entity before.
    life.last[element] = {*event.value, nestedInStep_ ? kNoRecord : entity};
  } else {
    auto handled = life.last.find(element);
    bool ofAnother = handled == life.last.end() || handled->second.entity != entity;
    if (now && !ofAnother && !nestedInStep_ && !isGoing(life)) {
      return fail(fmt::format("{} is handled as gone, but is {}", element.text(), *now));
    }
    life.last.erase(element);
  }

  uint32_t member = memberOf(kKeys[element.key]);
  Frame frame{.life = &life, .element = element, .table = tableOf(element.stream), .member = member};
  OutputLife& output = life.output(frame.table);
  const auto& mappings = *state_.set(life.wiring.mappings).mappings;
  switch (element.stream) {
    case Stream::mount: {
      const auto* mapping = mappings.mountEntries().find(kMounts[element.item]);
      if (mapping == nullptr) return;
      frame.key = {member, mapping->index};
      if (event.value) frame.row = Row{.record = *event.value, .x = serial(*mapping), .y = kMountRow};
      break;
    }
    case Stream::memory:
      for (auto kind = mappings.memEntries().begin(); kind; kind.next()) {
        Key key{member, kind.value()->index};
        touch(output, key, element);
      }
      if (event.value) frame.row = Row{.record = *event.value, .y = kMemoryRow};
      frame.mappingVersion = mappings.memEntries().version();
      return push(std::move(frame));
    default:
      frame.key = {member, element.stream == Stream::system ? 0 : element.item};
      if (event.value) frame.row = Row{.record = *event.value};
      if (event.value && element.stream == Stream::reachability) frame.row->x = life.wiring.ifMib;
  }
  if (output.reconciling) output.seen.insert(frame.key);
  touch(output, frame.key, element);
  push(std::move(frame));
}

void Follower::linkEvent(uint32_t local, uint32_t remote) {
  Life* life = lifeFor(PipelineId::ifTable);
  if (life == nullptr) return fail("nobody is there to handle a link");
  life->dirty = true;
  if (!mayHandle(*life)) return fail(fmt::format("inactive, but handles link {}.{}", local, remote));
  const Element element{Stream::link, local, remote};
  const Key link{local, remote};
  OutputLife& output = life->outputs.front();
  auto index = indexOfLink(*state_.set(life->wiring.topology).topology, *state_.set(life->wiring.ifMib).ifMib,
                           local, remote);
  auto cached = life->cache.find(link);
  Frame frame{.life = life, .element = element, .table = TableId::baIf};
  if (cached != life->cache.end() && cached->second != index) frame.old = Key{cached->second, 0};
  if (index) {
    frame.key = {*index, 0};
    frame.row = Row{.x = local, .y = remote};
    life->cache[link] = *index;
    touch(output, frame.key, element);
  } else if (cached != life->cache.end()) {
    life->cache.erase(cached);
  }
  if (output.reconciling) {
    if (frame.old) output.seen.insert(*frame.old);
    if (frame.row) output.seen.insert(frame.key);
  }
  push(std::move(frame));
}

void Follower::touch(OutputLife& output, const Key& key, const Element& element) {
  auto [at, isNew] = output.touchers.try_emplace(key, OutputLife::Toucher{element});
  if (!isNew && at->second.first != element) at->second.several = true;
}

// -- What an event has to do

void Follower::push(Frame frame) {
  for (Frame& below : frames_) below.overtaken |= sameRows(below, frame);
  if (nextOp(frame)) frames_.push_back(std::move(frame));
}

// Whether the two may have to do with the same row.
bool Follower::sameRows(const Frame& a, const Frame& b) const {
  if (a.life != b.life || a.table != b.table) return false;
  if (a.element == b.element) return true;
  if (a.element.stream == Stream::memory || b.element.stream == Stream::memory) return a.member == b.member;
  auto of = [](const Frame& frame, const std::optional<Key>& key) {
    return key && (key == frame.key || key == frame.old);
  };
  return of(a, b.key) || of(a, b.old);
}

std::optional<Follower::Op> Follower::nextOp(Frame& frame) {
  if (frame.done) return std::nullopt;
  const MirrorTable& table = rows(frame.life->wiring.mib, frame.table);
  if (frame.element.stream == Stream::memory) return nextMemoryOp(frame);
  if (frame.old && frame.stage == 0) {
    auto at = table.find(*frame.old);
    bool own = at != table.end() && at->second.row == Row{.x = frame.element.key, .y = frame.element.item};
    if (own) return Op{.insert = false, .key = *frame.old, .row = {}};
    frame.stage = 1;
  }
  auto at = table.find(frame.key);
  bool stands = at != table.end();
  if (!frame.row) {
    // A link without an index has nothing more to do.
    bool goes = stands && frame.element.stream != Stream::link;
    return goes ? std::optional(Op{.insert = false, .key = frame.key, .row = {}}) : std::nullopt;
  }
  const Op insert{.insert = true, .key = frame.key, .row = *frame.row};
  if (frame.table == TableId::storage || !stands) return insert;
  if (at->second.row == *frame.row) return std::nullopt;
  return Op{.insert = false, .key = frame.key, .row = {}};
}

std::optional<Follower::Op> Follower::nextMemoryOp(Frame& frame) {
  const MirrorTable& table = rows(frame.life->wiring.mib, frame.table);
  const auto& kinds = state_.set(frame.life->wiring.mappings).mappings->memEntries();
  frame.overtaken |= kinds.version() != frame.mappingVersion;
  for (auto kind = kinds.begin(); kind; kind.next()) {
    if (frame.lastKind && kind.key() <= *frame.lastKind) continue;
    Key key{frame.member, kind.value()->index};
    if (frame.row) {
      return Op{.insert = true, .key = key, .row = {frame.row->record, serial(*kind.value()), kMemoryRow}};
    }
    if (table.contains(key)) return Op{.insert = false, .key = key, .row = {}};
  }
  return std::nullopt;
}

// The operation was made; whether there is a next one is seen when it is asked for.
void Follower::advance(Frame& frame, const Op& op) {
  if (frame.element.stream == Stream::memory) {
    const auto& kinds = state_.set(frame.life->wiring.mappings).mappings->memEntries();
    for (auto kind = kinds.begin(); kind; kind.next()) {
      if (frame.lastKind && kind.key() <= *frame.lastKind) continue;
      if (kind.value()->index != op.key.second) continue;
      frame.lastKind = kind.key();
      // Mappings may change while the event is under way: only now it is clear which rows it has to do with.
      OutputLife& output = frame.life->output(frame.table);
      if (output.reconciling) output.seen.insert(op.key);
      touch(output, op.key, frame.element);
      return;
    }
    return;
  }
  bool withdrawn = frame.old && frame.stage == 0;
  ++frame.stage;
  frame.done = op.insert || (!withdrawn && !frame.row);
}

void Follower::popFrames(size_t down) {
  while (frames_.size() > down) {
    Frame& frame = frames_.back();
    if (failure_.empty()) {
      auto op = nextOp(frame);
      if (op && !frame.overtaken) {
        fail(fmt::format("{} was handled, but row {} of {} was not {}", frame.element.text(), op->key.text(),
                         nameOf(frame.table), op->insert ? "written: " + op->row.text() : "removed"));
      }
    }
    frames_.pop_back();
  }
}

// -- Publications

void Follower::published(size_t set, const TrelSnmp::TrelMib::Change& change) {
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
    log_(fmt::format("{:{}}{} {} {} {}", "", 4 * depth_ + 2, op.insert ? '+' : '-', nameOf(table),
                     op.key.text(), op.insert ? op.row.text() : ""));
  }
  if (!failure_.empty()) return;
  if (!ownWrites_ && !justified(set, table, op) && failure_.empty()) {
    fail(fmt::format("row {} of {} {} without a reason", op.key.text(), nameOf(table),
                     op.insert ? "is written (" + op.row.text() + ")" : "goes"));
  }
  applyToMirror(set, table, op);
  if (failure_.empty()) onPublication_();
}

bool Follower::justified(size_t set, TableId table, const Op& op) {
  for (size_t i = frames_.size(); i > 0; --i) {
    Frame& frame = frames_[i - 1];
    if (frame.table != table || frame.life->wiring.mib != set) continue;
    auto next = nextOp(frame);
    if (!next || *next != op) continue;
    popFrames(i);
    advance(frames_[i - 1], op);
    return true;
  }
  return !op.insert && (byReconciliation(set, table, op) || byCacheOfDropped(set, op));
}

// A row that nothing has accounted for since the pipeline started, once all that is there has been looked at.
bool Follower::byReconciliation(size_t set, TableId table, const Op& op) {
  for (auto& life : lives_) {
    if (!life || life->wiring.mib != set ||
        (life->outputs.front().table != table && life->outputs.back().table != table))
      continue;
    OutputLife& output = life->output(table);
    if (!output.reconciling || output.ready || output.seen.contains(op.key)) return false;
    for (const Claim& claim : claims(*life, table)) {
      if (claim.key != op.key || life->remapped.contains(op.key.second)) continue;
      auto cached = life->cache.find(Key{claim.row.x, claim.row.y});
      bool pending =
          table == TableId::baIf && (cached == life->cache.end() || cached->second != op.key.first);
      if (!pending)
        fail(fmt::format("row {} of {} has a source, but is reconciled away", op.key.text(), nameOf(table)));
    }
    return true;
  }
  return false;
}

bool Follower::byCacheOfDropped(size_t set, const Op& op) {
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

void Follower::applyToMirror(size_t set, TableId table, const Op& op) {
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

// -- The end of a step

size_t Follower::nestedBegins() {
  ++depth_;
  nestedInStep_ = true;
  return frames_.size();
}

void Follower::nestedEnds(size_t frames) {
  popFrames(frames);
  --depth_;
}

void Follower::stepEnds(bool settled) {
  popFrames(0);
  checkMirrors();
  for (auto& life : lives_) {
    if (life && life->pipeline != nullptr && failure_.empty()) checkLife(*life, settled);
  }
  buried_.clear();
  gone_.clear();
  nestedInStep_ = false;
  ++steps_;
}

void Follower::checkMirrors() {
  for (size_t set = 0; set < kSets && failure_.empty(); ++set) {
    Mirror& mirror = mirrors_[set];
    for (size_t place = 0; place < kTables; ++place) {
      if (!std::exchange(mirror.changed[place], false)) continue;
      auto table = static_cast<TableId>(place);
      withTable(*state_.set(set).mib, table, [&](const auto& real) {
        auto expected = mirror.tables[place].begin();
        size_t count = 0;
        for (auto at = real.begin(); at; at.next(), ++expected, ++count) {
          if (expected == mirror.tables[place].end() || keyOf(at.key()) != expected->first ||
              rowOf(*at.entry()) != expected->second.row) {
            return fail(fmt::format("{} holds {} {}, which was not published so", nameOf(table),
                                    keyOf(at.key()).text(), rowOf(*at.entry()).text()));
          }
        }
        if (expected != mirror.tables[place].end()) {
          fail(
              fmt::format("{} does not hold {}, which was published", nameOf(table), expected->first.text()));
        }
        if (real.size() != count)
          fail(fmt::format("{} says {} rows, but has {}", nameOf(table), real.size(), count));
        if (real.version() != mirror.versions[place]) {
          fail(fmt::format("{} counts {} changes of {}", nameOf(table), real.version(),
                           mirror.versions[place]));
        }
      });
    }
  }
}

bool Follower::outputReady(const Life& life, TableId table) const {
  namespace A = TrelSnmp::Agent;
  const auto& pipeline = *life.pipeline;
  switch (table) {
    case TableId::baIf:
      return static_cast<const A::TrelSnmpIfTableSm&>(pipeline).trelMibTrelIfTableOutput().ready();
    case TableId::reachability:
      return static_cast<const A::TrelSnmpReachabilityTableSm&>(pipeline)
          .trelMibTrelReachabilityTableOutput()
          .ready();
    case TableId::system:
      return static_cast<const A::TrelSnmpHostResourcesSm&>(pipeline)
          .trelMibTrelHrSystemTableOutput()
          .ready();
    case TableId::processor:
      return static_cast<const A::TrelSnmpHostResourcesSm&>(pipeline)
          .trelMibTrelProcessorTableOutput()
          .ready();
    default:
      return static_cast<const A::TrelSnmpHrStorageTableSm&>(pipeline)
          .trelMibTrelHrStorageTableOutput()
          .ready();
  }
}

Claims Follower::claims(const Life& life, TableId table) const {
  const Wiring& of = life.wiring;
  const Kor::Dir& hosts = *state_.set(of.hostResourcesDir).hostResourcesDir;
  switch (table) {
    case TableId::baIf:
      return interfaceClaims(*state_.set(of.topology).topology, *state_.set(of.ifMib).ifMib);
    case TableId::reachability:
      return reachabilityClaims(*state_.set(of.reachabilityDir).reachabilityDir, *state_.set(of.ifMib).ifMib);
    case TableId::system:
      return systemClaims(hosts);
    case TableId::processor:
      return processorClaims(hosts);
    default:
      return storageClaims(hosts, *state_.set(of.mappings).mappings);
  }
}

void Follower::checkLife(Life& life, bool settled) {
  bool allReady = true;
  for (OutputLife& output : life.outputs) {
    bool ready = outputReady(life, output.table);
    allReady = allReady && ready;
    if (output.ready && !ready) fail(fmt::format("{} is not ready any more", nameOf(life.id)));
    if (ready == output.ready) continue;
    output.ready = ready;
    life.dirty = true;
    if (!output.reconciling) continue;
    for (const auto& [key, row] : rows(life.wiring.mib, output.table)) {
      if (!output.seen.contains(key)) {
        fail(fmt::format("{} is ready, but row {} of an earlier life stands", nameOf(life.id), key.text()));
      }
    }
    output.reconciling = false;
  }
  bool ready = life.pipeline->ready();
  bool idle = life.pipeline->idle();
  if (ready != allReady)
    fail(fmt::format("{} says that it is {}ready", nameOf(life.id), ready ? "" : "not "));
  if (idle && !ready) fail(fmt::format("{} is idle before it is ready", nameOf(life.id)));
  if (!life.active) return;
  if ((settled || life.pipeline->synchronous()) && !idle) {
    fail(fmt::format("{} is not {}, but has nothing to do", nameOf(life.id), ready ? "idle" : "ready"));
  }
  if (!life.dirty) return;
  life.dirty = false;
  for (OutputLife& output : life.outputs) {
    if (!output.ready) continue;
    // Changes of links may wait until it is idle.
    if (output.table == TableId::baIf && !idle) {
      life.dirty = true;
      continue;
    }
    checkOutput(life, output);
  }
}

void Follower::checkOutput(Life& life, OutputLife& output) {
  if (output.table == TableId::baIf) {
    checkLinks(life);
  } else {
    checkEvents(life, output.table);
  }
  if (failure_.empty()) checkRows(life, output, claims(life, output.table));
}

// Every element was handled as it is now.
void Follower::checkEvents(const Life& life, TableId table) {
  size_t alive = 0;
  auto expectHandled = [&](Stream stream, std::string_view key, uint32_t item, uint64_t value) {
    ++alive;
    Element element{stream, keyPlaces_.at(key), item};
    auto at = life.last.find(element);
    if (at == life.last.end() || at->second.value != value) {
      fail(fmt::format("{} is ready, but has not handled {}, which is {}", nameOf(life.id), element.text(),
                       value));
    }
  };
  if (table == TableId::reachability) {
    const Kor::Dir& dir = *state_.set(life.wiring.reachabilityDir).reachabilityDir;
    for (auto entry = dir.entities().begin(); entry; entry.next()) {
      const auto* reach = reachAt(dir, entry.key());
      if (reach == nullptr) continue;
      for (auto at = reach->reachabilityStatus().begin(); at; at.next()) {
        expectHandled(Stream::reachability, entry.key(), at.key().id(), serial(at.value()->get()));
      }
    }
  } else {
    const Kor::Dir& dir = *state_.set(life.wiring.hostResourcesDir).hostResourcesDir;
    for (auto entry = dir.entities().begin(); entry; entry.next()) {
      const auto* host = hostAt(dir, entry.key());
      if (host == nullptr) continue;
      if (table == TableId::system) expectHandled(Stream::system, entry.key(), 0, serial(host));
      if (table == TableId::processor) {
        for (auto at = host->processorTable().begin(); at; at.next()) {
          expectHandled(Stream::processor, entry.key(), at.key(), serial(at.value()->get()));
        }
      }
      if (table != TableId::storage) continue;
      for (auto at = host->storageInfoTable().begin(); at; at.next()) {
        expectHandled(Stream::mount, entry.key(), mountPlaces_.at(at.key()), serial(at.value()->get()));
      }
      if (host->memInfo()) expectHandled(Stream::memory, entry.key(), 0, serial(host->memInfo().get()));
    }
  }
  size_t known = 0;
  for (const auto& [element, at] : life.last) known += tableOf(element.stream) == table ? 1 : 0;
  if (known != alive)
    fail(fmt::format("{} is ready, but {} elements have not been withdrawn", nameOf(life.id), known - alive));
}

void Follower::checkLinks(const Life& life) {
  const Trel::TopologyConfig& topology = *state_.set(life.wiring.topology).topology;
  const IntfSnmp::IfMib& ifMib = *state_.set(life.wiring.ifMib).ifMib;
  size_t alive = 0;
  for (const Claim& claim : claims(life, TableId::baIf)) {
    ++alive;
    auto cached = life.cache.find(Key{claim.row.x, claim.row.y});
    if (cached == life.cache.end() || cached->second != claim.key.first) {
      fail(fmt::format("idle, but has not handled link {}.{} with index {}", claim.row.x, claim.row.y,
                       claim.key.first));
    }
  }
  if (life.cache.size() == alive) return;
  for (const auto& [link, index] : life.cache) {
    if (indexOfLink(topology, ifMib, link.first, link.second) != index) {
      fail(fmt::format("idle, but has not withdrawn link {} with index {}", link.text(), index));
    }
  }
}

// Each key that one element alone has had to do with holds what that element claims.
void Follower::checkRows(const Life& life, const OutputLife& output, const Claims& claims) {
  const MirrorTable& table = rows(life.wiring.mib, output.table);
  auto contested = [&](const Key& key) {
    if (output.table == TableId::storage && life.remapped.contains(key.second)) return true;
    auto toucher = output.touchers.find(key);
    return toucher != output.touchers.end() && toucher->second.several;
  };
  auto lacks = [&](const Key& key) {
    if (!contested(key)) fail(fmt::format("{} lacks row {}", nameOf(output.table), key.text()));
  };
  auto claim = claims.begin();
  for (const auto& [key, row] : table) {
    for (; claim != claims.end() && claim->key < key; ++claim) lacks(claim->key);
    bool claimed = claim != claims.end() && claim->key == key;
    // One memory record may claim a row in several ways.
    bool again = claimed && claim + 1 != claims.end() && claim[1].key == key;
    if (!contested(key) && !again) {
      if (!claimed)
        return fail(fmt::format("{} has row {}, which has no source", nameOf(output.table), key.text()));
      if (claim->row != row.row) {
        return fail(fmt::format("row {} of {} shows {} instead of {}", key.text(), nameOf(output.table),
                                row.row.text(), claim->row.text()));
      }
    }
    while (claim != claims.end() && claim->key == key) ++claim;
  }
  for (; claim != claims.end(); ++claim) lacks(claim->key);
}

}  // namespace Simulation
