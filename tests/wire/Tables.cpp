#include "tests/wire/Tables.h"

#include <algorithm>
#include <cmath>

#include "tests/oracle/Document.h"

namespace Wire {
namespace {

using nlohmann::json;

uint32_t numberOf(const std::string& text) { return static_cast<uint32_t>(std::stoul(text)); }

// What the names of both modules begin with.
Oid modulesRoot() { return {1, 3, 6, 1, 4, 1, numberOf(TREL_ENTERPRISE_NUMBER), 3}; }

Oid oidOfText(const std::string& dotted) {
  Oid oid;
  for (size_t at = 0; at < dotted.size();) {
    size_t dot = std::min(dotted.find('.', at), dotted.size());
    if (dot != at) oid.push_back(numberOf(dotted.substr(at, dot - at)));
    at = dot + 1;
  }
  return oid;
}

Value valueOf(const Oracle::Column& column, const AgentClock& clock) {
  switch (column.type) {
    case Oracle::Column::integer:
      return integerValue(column.number);
    case Oracle::Column::gauge:
      return unsignedValue(Tag::gauge32, static_cast<uint64_t>(column.number));
    case Oracle::Column::ticks:
      return unsignedValue(Tag::timeTicks, static_cast<uint64_t>(column.number));
    case Oracle::Column::instant:
      return unsignedValue(Tag::timeTicks, clock.ticksAt(static_cast<uint64_t>(column.number)));
    case Oracle::Column::octets:
      return octetsValue(column.text);
    default:
      return oidValue(oidOfText(column.text));
  }
}

// The steps between the times that are asked for, over a little more than one tick.
constexpr uint64_t kQuestionStepNs = 200'000;
constexpr size_t kQuestions = 52;

}  // namespace

const std::array<TableShape, 5>& tableShapes() {
  auto under = [](uint32_t module, uint32_t table) { return joined(modulesRoot(), {module, 1, table}); };
  static const std::array<TableShape, 5> shapes = {{
      {"veldaTrelBaIfTable", under(40, 1), 1, 2, 3, false},
      {"veldaTrelReachabilityTable", under(40, 2), 2, 3, 5, false},
      {"veldaTrelHrSystemTable", under(41, 1), 1, 2, 6, true},
      {"veldaTrelProcessorTable", under(41, 2), 2, 3, 3, false},
      {"veldaTrelStorageTable", under(41, 3), 2, 3, 7, false},
  }};
  return shapes;
}

const TableShape* tableOf(const Oid& name) {
  for (const TableShape& shape : tableShapes()) {
    if (name.size() >= shape.root.size() && std::equal(shape.root.begin(), shape.root.end(), name.begin())) {
      return &shape;
    }
  }
  return nullptr;
}

Tree treeOf(const json& document, const AgentClock& clock) {
  Tree tree;
  for (const auto& [name, column] : Oracle::walkOf(Oracle::stateOf(document))) {
    tree[joined(modulesRoot(), name)] = valueOf(column, clock);
  }
  return tree;
}

double AgentClock::exactTicksAt(uint64_t utcNs) const {
  return (static_cast<double>(utcNs) / 1e9 - startUtc_) * 100;
}

uint32_t AgentClock::ticksAt(uint64_t utcNs) const {
  double exact = exactTicksAt(utcNs);
  return exact <= 0 ? 0 : static_cast<uint32_t>(static_cast<uint64_t>(exact));
}

bool AgentClock::knows(uint64_t utcNs) const {
  constexpr double kMargin = 0.1;
  double exact = exactTicksAt(utcNs);
  double part = exact - std::floor(exact);
  return exact < -1 || (exact > 1 && part > kMargin && part < 1 - kMargin);
}

nlohmann::json AgentClock::question(uint64_t aroundUtcNs) {
  json reports = json::object();
  for (size_t i = 0; i < kQuestions; ++i) {
    reports[std::to_string(i)] = {{"state", 0}, {"lastChange", aroundUtcNs + i * kQuestionStepNs}};
  }
  return {{"members", {{"1", {{"reachability", reports}}}}}};
}

uint64_t AgentClock::lastNs(uint64_t aroundUtcNs) { return aroundUtcNs + kQuestions * kQuestionStepNs; }

AgentClock AgentClock::answer(uint64_t aroundUtcNs, const std::vector<uint32_t>& ticks) {
  // The first that is a tick later than the first of all; the tick turned half a step before it.
  auto later = std::find_if(ticks.begin(), ticks.end(), [&](uint32_t t) { return t > ticks.front(); });
  if (later == ticks.end()) throw std::runtime_error("no tick turns within the times asked for");
  double step = static_cast<double>(kQuestionStepNs) / 1e9;
  double turned =
      static_cast<double>(aroundUtcNs) / 1e9 + (static_cast<double>(later - ticks.begin()) - 0.5) * step;
  return AgentClock(turned - *later / 100.0);
}

}  // namespace Wire
