// What must hold when a step is over.
#include <fmt/format.h>

#include <algorithm>

#include "tests/simulation/Observer.h"
#include "tests/simulation/Universe.h"

namespace Simulation {

void Observer::stepEnds(bool settled) {
  eventIsOver();
  checkMirrors();
  for (auto& life : lives_) {
    if (life && life->pipeline != nullptr && failure_.empty()) checkLife(*life, settled);
  }
  buried_.clear();
  gone_.clear();
  ++steps_;
}

void Observer::checkMirrors() {
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

bool Observer::outputReady(const Life& life, TableId table) const {
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

Oracle::Rows Observer::claims(const Life& life, TableId table) const {
  const Wiring& of = life.wiring;
  const Kor::Dir& hosts = *state_.set(of.hostResourcesDir).hostResourcesDir;
  switch (table) {
    case TableId::baIf:
      return Oracle::interfaceRows(*state_.set(of.topology).topology, *state_.set(of.ifMib).ifMib);
    case TableId::reachability:
      return Oracle::reachabilityRows(*state_.set(of.reachabilityDir).reachabilityDir,
                                      *state_.set(of.ifMib).ifMib);
    case TableId::system:
      return Oracle::systemRows(hosts);
    case TableId::processor:
      return Oracle::processorRows(hosts);
    default:
      return Oracle::storageRows(hosts, *state_.set(of.mappings).mappings);
  }
}

void Observer::checkLife(Life& life, bool settled) {
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

void Observer::checkOutput(Life& life, OutputLife& output) {
  if (output.table == TableId::baIf) {
    checkLinks(life);
  } else {
    checkEvents(life, output.table);
  }
  if (failure_.empty()) checkRows(life, output, claims(life, output.table));
}

// Every element was handled as it is now.
void Observer::checkEvents(const Life& life, TableId table) {
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

void Observer::checkLinks(const Life& life) {
  const Trel::TopologyConfig& topology = *state_.set(life.wiring.topology).topology;
  const IntfSnmp::IfMib& ifMib = *state_.set(life.wiring.ifMib).ifMib;
  size_t alive = 0;
  for (const auto& [key, columns] : claims(life, TableId::baIf)) {
    ++alive;
    if (!life.handled(columns, key.first)) {
      fail(fmt::format("idle, but has not handled link {}.{} with index {}", columns[0].number,
                       columns[1].number, key.first));
    }
  }
  if (life.cache.size() == alive) return;
  for (const auto& [link, index] : life.cache) {
    if (Oracle::indexOfLink(topology, ifMib, {link.first, link.second}) != index) {
      fail(fmt::format("idle, but has not withdrawn link {} with index {}", link.text(), index));
    }
  }
}

// Each row shows one of the claims on its key, down to the values of the records behind it, and a claimed row
// that is not there was withdrawn by another element that had claimed it, too.
void Observer::checkRows(const Life& life, const OutputLife& output, const Oracle::Rows& claims) {
  withTable(*state_.set(life.wiring.mib).mib, output.table, [&](const auto& table) {
    const Oracle::Rows shown = Oracle::rowsIn(table);
    for (const auto& row : shown) {
      const Key key{row.first.first, row.first.second};
      auto [first, last] = claims.equal_range(row.first);
      if (mappedAnew(life, output.table, key) || std::find(first, last, row) != last) continue;
      if (first == last)
        return fail(fmt::format("{} has row {}, which has no source", nameOf(output.table), key.text()));
      return fail(fmt::format("a row of {} shows {} instead of {}", nameOf(output.table),
                              Oracle::textOf({row}), Oracle::textOf({*first})));
    }
    for (const auto& [key, columns] : claims) {
      if (!shown.contains(key)) checkLacking(life, output, {key.first, key.second});
    }
  });
}

// A link whose index another one gave up is processed again; elsewhere a withdrawal takes the row along,
// whoever else claims it.
void Observer::checkLacking(const Life& life, const OutputLife& output, const Key& key) {
  if (mappedAnew(life, output.table, key)) return;
  auto touch = output.touches.find(key);
  bool withdrawn = output.table != TableId::baIf && touch != output.touches.end() && !touch->second.wrote &&
                   !life.last.contains(touch->second.element);
  if (!withdrawn) fail(fmt::format("{} lacks row {}", nameOf(output.table), key.text()));
}

}  // namespace Simulation
