#include "tests/wire/Tables.h"

#include <algorithm>
#include <cmath>
#include <ctime>

namespace Wire {
namespace {

using nlohmann::json;

// In the order of the tables' OIDs.
enum Table : size_t { baIf, reachability, hrSystem, processor, storage };

// A member that may be missing: an empty object then.
const json& at(const json& object, const std::string& name) {
  static const json nothing = json::object();
  auto found = object.find(name);
  return found == object.end() ? nothing : *found;
}

uint32_t numberOf(const std::string& text) { return static_cast<uint32_t>(std::stoul(text)); }

// INTEGER is signed on the wire, whatever the number means.
Value asInteger(uint32_t number) { return integerValue(static_cast<int32_t>(number)); }

Value dateAndTime(double utcSeconds) {
  auto tenths = static_cast<int64_t>(std::floor(utcSeconds * 10 + 1e-4));
  time_t seconds = tenths / 10;
  tm date{};
  gmtime_r(&seconds, &date);
  int year = date.tm_year + 1900;
  Bytes octets;
  for (int number : {year >> 8, year & 0xff, date.tm_mon + 1, date.tm_mday, date.tm_hour, date.tm_min,
                     date.tm_sec, static_cast<int>(tenths % 10)}) {
    octets += static_cast<char>(number);
  }
  return octetsValue(octets + "+" + Bytes(2, '\0'));
}

uint32_t ticks(double seconds) {
  return static_cast<uint32_t>(static_cast<uint64_t>(std::floor(seconds * 100 + 1e-3)));
}

Oid oidOfText(const std::string& dotted) {
  Oid oid;
  for (size_t at = 0; at < dotted.size();) {
    size_t dot = std::min(dotted.find('.', at), dotted.size());
    if (dot != at) oid.push_back(numberOf(dotted.substr(at, dot - at)));
    at = dot + 1;
  }
  return oid;
}

// How many units of a kind of memory are in use.
uint32_t usedMemory(const json& memory, uint32_t index) {
  static const std::map<uint32_t, const char*> kUnused = {
      {1, "free"}, {2, "nonBuffer"}, {3, "nonCache"}, {100, "available"}};
  uint32_t total = memory.value("total", uint32_t{0});
  auto unused = kUnused.find(index);
  if (total == 0 || unused == kUnused.end()) return 0;
  return total - memory.value(unused->second, uint32_t{0});
}

class Rows {
 public:
  Rows(const json& document, const AgentClock& clock) : document_(document), clock_(clock) {
    addLinks();
    for (const auto& [key, member] : at(document_, "members").items()) {
      addReachability(numberOf(key), member);
      addHost(numberOf(key), member);
    }
  }
  Tree take() { return std::move(tree_); }

 private:
  void add(Table table, const Oid& index, std::initializer_list<Value> columns) {
    const TableShape& shape = tableShapes()[table];
    uint32_t column = shape.firstColumn;
    for (const Value& value : columns) {
      Oid name = shape.root;
      name.insert(name.end(), {1, column++});
      name.insert(name.end(), index.begin(), index.end());
      tree_[name] = value;
    }
  }

  void addLinks() {
    constexpr std::string_view kChannel = "Backplane";
    for (const auto& [member, neighbours] : at(document_, "topology").items()) {
      for (const auto& [neighbour, link] : neighbours.items()) {
        std::string intf = link.at("intf");
        bool joins = intf.starts_with(kChannel) && intf.size() > kChannel.size() &&
                     std::isdigit(static_cast<unsigned char>(intf[kChannel.size()])) != 0;
        const json& interface = at(at(document_, "interfaces"), intf);
        if (!joins || interface.empty()) continue;
        add(baIf, {interface.at("ifIndex")}, {asInteger(numberOf(member)), asInteger(numberOf(neighbour))});
      }
    }
  }

  void addReachability(uint32_t source, const json& member) {
    for (const auto& [neighbour, report] : at(member, "reachability").items()) {
      const json& interface = at(at(document_, "interfaces"), report.value("intf", ""));
      add(reachability, {source, numberOf(neighbour)},
          {asInteger(interface.value("ifIndex", uint32_t{0})), asInteger(stateNumber(report.at("state"))),
           unsignedValue(Tag::timeTicks, clock_.ticksAt(report.at("lastChange")))});
    }
  }

  // As the MIB counts them, from 1.
  static uint32_t stateNumber(const json& state) {
    static const std::vector<std::string> kNames = {"unknown",  "initializing", "reachable",
                                                    "degraded", "unreachable",  "disabled"};
    if (state.is_number()) return state.get<uint32_t>() + 1;
    auto named = std::find(kNames.begin(), kNames.end(), state.get<std::string>());
    return static_cast<uint32_t>(named - kNames.begin()) + 1;
  }

  void addHost(uint32_t id, const json& member) {
    const std::array kFigures = {"system", "processors", "storage", "memory"};
    if (std::none_of(kFigures.begin(), kFigures.end(),
                     [&](const char* name) { return member.contains(name); }))
      return;
    const json& system = at(member, "system");
    add(hrSystem, {id},
        {unsignedValue(Tag::timeTicks, ticks(system.value("uptime", 0.0))),
         dateAndTime(system.value("currentTimeUtc", 0.0)),
         unsignedValue(Tag::gauge32, system.value("users", uint32_t{0})),
         unsignedValue(Tag::gauge32, system.value("processes", uint32_t{0})),
         asInteger(system.value("memorySize", uint32_t{0}))});
    for (const auto& [index, figures] : at(member, "processors").items()) {
      add(processor, {id, numberOf(index)}, {integerValue(figures.at("load").get<int>())});
    }
    addStorage(id, member);
  }

  void addStorage(uint32_t id, const json& member) {
    const json& mappings = at(document_, "storageMappings");
    for (const auto& [mount, info] : at(member, "storage").items()) {
      const json& mapping = at(at(mappings, "mounts"), mount);
      if (mapping.empty()) continue;
      auto size = static_cast<uint32_t>(info.at("size").get<uint64_t>());
      auto free = static_cast<uint32_t>(info.at("free").get<uint64_t>());
      addStorageRow(id, mapping, info.at("allocationUnits"), size, size - free);
    }
    if (!member.contains("memory")) return;
    const json& memory = member.at("memory");
    for (const auto& [number, mapping] : at(mappings, "memory").items()) {
      addStorageRow(id, mapping, 1024, memory.value("total", uint32_t{0}),
                    usedMemory(memory, mapping.at("index")));
    }
  }
  void addStorageRow(uint32_t id, const json& mapping, uint32_t units, uint32_t size, uint32_t used) {
    add(storage, {id, mapping.at("index")},
        {oidValue(oidOfText(mapping.at("type"))), octetsValue(mapping.at("description").get<std::string>()),
         asInteger(units), asInteger(size), asInteger(used)});
  }

  const json& document_;
  const AgentClock& clock_;
  Tree tree_;
};

// The steps between the times that are asked for, over a little more than one tick.
constexpr uint64_t kQuestionStepNs = 200'000;
constexpr size_t kQuestions = 52;

}  // namespace

const std::array<TableShape, 5>& tableShapes() {
  auto under = [](uint32_t module, uint32_t table) {
    return Oid{1, 3, 6, 1, 4, 1, numberOf(TREL_ENTERPRISE_NUMBER), 3, module, 1, table};
  };
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

Tree treeOf(const json& document, const AgentClock& clock) { return Rows(document, clock).take(); }

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
