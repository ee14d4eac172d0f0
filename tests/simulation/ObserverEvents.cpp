// What an event has to do to its table.
#include <fmt/format.h>

#include "tests/simulation/Observer.h"
#include "tests/simulation/Universe.h"

namespace Simulation {

std::optional<uint64_t> Observer::currentValue(const Life& life, const Element& element,
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

void Observer::event(const Event& event) {
  Life& life = *event.life;
  const Element& element = event.element;
  eventIsOver();
  life.dirty = true;
  ++life.events;
  if (!mayHandle(life)) return fail(fmt::format("inactive, but handles {}", element.text()));
  uint64_t entity = kNoRecord;
  std::optional<uint64_t> now = currentValue(life, element, entity);
  if (event.value) {
    if (event.value != now) {
      return fail(fmt::format("{} is handled with {}, but is {}", element.text(), *event.value,
                              now.value_or(kNoRecord)));
    }
    life.last[element] = {*event.value, entity};
  } else {
    auto handled = life.last.find(element);
    bool ofAnother = handled == life.last.end() || handled->second.entity != entity;
    if (now && !ofAnother && !isGoing(life)) {
      return fail(fmt::format("{} is handled as gone, but is {}", element.text(), *now));
    }
    life.last.erase(element);
  }

  uint32_t member = Oracle::memberOf(kKeys[element.key]);
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
        if (output.reconciling) output.seen.insert(key);
        touch(life, frame.table, key, element, event.value.has_value());
      }
      if (event.value) frame.row = Row{.record = *event.value, .y = kMemoryRow};
      frame_ = std::move(frame);
      return;
    default:
      frame.key = {member, element.stream == Stream::system ? 0 : element.item};
      if (event.value) frame.row = Row{.record = *event.value};
      if (event.value && element.stream == Stream::reachability) frame.row->x = life.wiring.ifMib;
  }
  if (output.reconciling) output.seen.insert(frame.key);
  touch(life, frame.table, frame.key, element, event.value.has_value());
  frame_ = std::move(frame);
}

void Observer::linkEvent(uint32_t local, uint32_t remote) {
  Life* life = lifeFor(PipelineId::ifTable);
  if (life == nullptr) return fail("nobody is there to handle a link");
  eventIsOver();
  life->dirty = true;
  ++life->events;
  if (!mayHandle(*life)) return fail(fmt::format("inactive, but handles link {}.{}", local, remote));
  const Element element{Stream::link, local, remote};
  const Key link{local, remote};
  OutputLife& output = life->outputs.front();
  auto index = Oracle::indexOfLink(*state_.set(life->wiring.topology).topology,
                                   *state_.set(life->wiring.ifMib).ifMib, {local, remote});
  auto cached = life->cache.find(link);
  Frame frame{.life = life, .element = element, .table = TableId::baIf};
  if (cached != life->cache.end() && cached->second != index) frame.old = Key{cached->second, 0};
  if (index) {
    frame.key = {*index, 0};
    frame.row = Row{.x = local, .y = remote};
    life->cache[link] = *index;
    touch(*life, frame.table, frame.key, element, true);
  } else if (cached != life->cache.end()) {
    life->cache.erase(cached);
  }
  // A row that names another link stays, and accounts for nothing: that link sees it, or it has to go.
  bool withdraws = frame.old && ownsOld(frame);
  if (withdraws) touch(*life, frame.table, *frame.old, element, false);
  if (output.reconciling) {
    if (withdraws) output.seen.insert(*frame.old);
    if (frame.row) output.seen.insert(frame.key);
  }
  frame_ = std::move(frame);
}

void Observer::touch(Life& life, TableId table, const Key& key, const Element& element, bool wrote) {
  life.output(table).touches.insert_or_assign(key, OutputLife::Touch{element, wrote, life.events});
}

// Whether the mappings of the row's index changed, and no event has had to do with the row since.
bool Observer::mappedAnew(const Life& life, TableId table, const Key& key) const {
  if (table != TableId::storage) return false;
  auto remapped = life.remapped.find(key.second);
  if (remapped == life.remapped.end()) return false;
  const auto& touches = life.outputs.front().touches;
  auto touch = touches.find(key);
  return touch == touches.end() || touch->second.event <= remapped->second;
}

// -- What an event has to do

// Whether the row under a link's old index names this link.
bool Observer::ownsOld(const Frame& frame) const {
  const MirrorTable& table = rows(frame.life->wiring.mib, frame.table);
  auto at = table.find(*frame.old);
  return at != table.end() && at->second.row == Row{.x = frame.element.key, .y = frame.element.item};
}

std::optional<Observer::Op> Observer::nextOp(Frame& frame) {
  if (frame.done) return std::nullopt;
  const MirrorTable& table = rows(frame.life->wiring.mib, frame.table);
  if (frame.element.stream == Stream::memory) return nextMemoryOp(frame);
  if (frame.old && frame.stage == 0) {
    if (ownsOld(frame)) return Op{.insert = false, .key = *frame.old, .row = {}};
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

std::optional<Observer::Op> Observer::nextMemoryOp(const Frame& frame) const {
  const MirrorTable& table = rows(frame.life->wiring.mib, frame.table);
  const auto& kinds = state_.set(frame.life->wiring.mappings).mappings->memEntries();
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
void Observer::advance(const Op& op) {
  Frame& frame = *frame_;
  if (frame.element.stream == Stream::memory) {
    const auto& kinds = state_.set(frame.life->wiring.mappings).mappings->memEntries();
    for (auto kind = kinds.begin(); kind; kind.next()) {
      if (frame.lastKind && kind.key() <= *frame.lastKind) continue;
      frame.lastKind = kind.key();
      if (kind.value()->index == op.key.second) return;
    }
    return;
  }
  bool withdrawn = frame.old && frame.stage == 0;
  ++frame.stage;
  frame.done = op.insert || (!withdrawn && !frame.row);
}

// An event has come to its end when the next one begins, or the step is over.
void Observer::eventIsOver() {
  if (!frame_) return;
  auto op = failure_.empty() ? nextOp(*frame_) : std::nullopt;
  if (op) {
    fail(fmt::format("{} was handled, but row {} of {} was not {}", frame_->element.text(), op->key.text(),
                     nameOf(frame_->table), op->insert ? "written: " + op->row.text() : "removed"));
  }
  frame_.reset();
}

}  // namespace Simulation
