#include "tests/cluster/RandomCluster.h"

#include <fmt/format.h>

#include <array>

#include "tests/oracle/Document.h"
#include "tests/snmp-modules/InProcessAgent.h"

namespace {

using Json = nlohmann::json;

const char* const kStates[] = {"unknown", "initializing", "reachable", "degraded", "unreachable", "disabled"};
const char* const kMounts[] = {"/", "/home", "/mnt/my disk", "/srv/100%", "/srv/\xC3\xA4", "/var/log"};
const char* const kFixedDisk = "1.3.6.1.2.1.25.2.1.4";
const char* const kRam = "1.3.6.1.2.1.25.2.1.2";

uint32_t number(const std::string& text) { return static_cast<uint32_t>(std::stoul(text)); }

const Json* find(const Json& object, std::initializer_list<std::string> path) {
  const Json* at = &object;
  for (const std::string& segment : path) {
    auto found = at->find(segment);
    if (found == at->end()) return nullptr;
    at = &*found;
  }
  return at;
}

std::string octets(std::string text) {
  netsnmp_variable_list varbind{};
  varbind.type = ASN_OCTET_STR;
  varbind.val.string = reinterpret_cast<u_char*>(text.data());
  varbind.val_len = text.size();
  return SnmpTest::valueIn(varbind);
}

std::string asAnswered(const Oracle::Column& column) {
  using Oracle::Column;
  switch (column.type) {
    case Column::integer:
      return fmt::format("i:{}", column.number);
    case Column::gauge:
      return fmt::format("u:{}", column.number);
    case Column::ticks:
      return fmt::format("t:{}", column.number);
    case Column::instant:
      return "t:0";  // before the agent's start
    case Column::octets:
      return octets(column.text);
    default:
      return "o:" + column.text;
  }
}

}  // namespace

RandomCluster::RandomCluster(unsigned seed, unsigned members) : random_(seed), members_(members) {
  state_ = {{"sysname", "switch-1"},
            {"interfaces", Json::object()},
            {"storageMappings", {{"mounts", Json::object()}, {"memory", Json::object()}}}};
  for (unsigned i = 1; i <= members; ++i) joins(std::to_string(i));
  for (unsigned i = 0; i < 10 * members; ++i) change();
}

void RandomCluster::joins(const std::string& member) {
  state_["members"][member]["system"] = {{"uptime", below(1U << 30U) + 0.5},
                                         {"currentTimeUtc", below(4000000000U) + 0.5},
                                         {"users", below(100)},
                                         {"processes", below(4000000000U)},
                                         {"memorySize", below(4000000000U)}};
  for (unsigned i = 0; i < 3; ++i) {
    changeHost(member);
    changeLink(member);
    changeReachability(member);
  }
}

void RandomCluster::change() {
  std::string member = anyMember();
  bool there = find(state_, {"members", member}) != nullptr;
  switch (below(20)) {
    case 0:
      if (there) {
        state_["members"].erase(member);
      } else {
        joins(member);
      }
      break;
    case 1:
      if (find(state_, {"topology", member}) != nullptr) state_["topology"].erase(member);
      break;
    case 2:
    case 3:
      changeMapping();
      break;
    case 4:
    case 5:
    case 6:
      changeIndex();
      break;
    case 7:
    case 8:
    case 9:
      changeLink(member);
      break;
    case 10:
    case 11:
    case 12:
      if (there) changeReachability(member);
      break;
    default:
      if (there) changeHost(member);
  }
}

// Every link has an interface of its own, now and then one that is no backplane channel.
void RandomCluster::changeLink(const std::string& member) {
  std::string neighbour = anyMember();
  if (below(3) == 0 && find(state_, {"topology", member, neighbour}) != nullptr) {
    state_["topology"][member].erase(neighbour);
    return;
  }
  std::string kind = below(8) == 0 ? "Ethernet" : "Backplane";
  state_["topology"][member][neighbour]["intf"] = kind + member + "/" + neighbour;
}

// Interfaces of two members may exchange their indexes, but no two share one.
void RandomCluster::changeIndex() {
  std::string one = "Backplane" + anyMember() + "/" + anyMember();
  std::string other = "Backplane" + anyMember() + "/" + anyMember();
  Json& interfaces = state_["interfaces"];
  if (interfaces.contains(one) && interfaces.contains(other)) {
    std::swap(interfaces[one], interfaces[other]);
  } else if (interfaces.contains(one) && below(2) == 0) {
    interfaces.erase(one);
  } else if (!interfaces.contains(one)) {
    auto slash = one.find('/');
    uint32_t index = 1000 * number(one.substr(9, slash - 9)) + number(one.substr(slash + 1));
    bool taken = false;  // by one that it was exchanged with
    for (const auto& [intf, value] : interfaces.items()) taken = taken || value["ifIndex"] == index;
    if (!taken) interfaces[one]["ifIndex"] = index;
  }
}

void RandomCluster::changeReachability(const std::string& member) {
  std::string neighbour = anyMember();
  Json& reachability = state_["members"][member]["reachability"];
  if (below(4) == 0 && reachability.contains(neighbour)) {
    reachability.erase(neighbour);
    return;
  }
  Json record = {{"state", kStates[below(6)]}, {"lastChange", 0}};
  if (below(4) != 0) record["intf"] = "Backplane" + member + "/" + neighbour;
  reachability[neighbour] = record;
}

std::string RandomCluster::anyMount() { return kMounts[below(std::size(kMounts))]; }

RandomCluster::Json RandomCluster::anyMemory() {
  Json memory = Json::object();
  for (const char* amount : {"total", "free", "available", "nonBuffer", "nonCache"}) {
    if (below(5) != 0) memory[amount] = below(4000000000U);
  }
  return memory;
}

void RandomCluster::changeHost(const std::string& member) {
  Json& host = state_["members"][member];
  switch (below(6)) {
    case 0:
      if (host.contains("system")) host["system"]["processes"] = below(1000);
      break;
    case 1:
      host["processors"][std::to_string(below(4))]["load"] = static_cast<int>(below(102)) - 1;
      break;
    case 2:
      if (host.contains("processors")) host["processors"].erase(std::to_string(below(4)));
      break;
    case 3:
      host["storage"][anyMount()] = {{"allocationUnits", 512U << below(8)},
                                     {"size", uint64_t{below(4000000000U)} * 7},
                                     {"free", below(4000000000U)}};
      break;
    case 4:
      if (host.contains("storage")) host["storage"].erase(anyMount());
      break;
    default:
      if (below(4) == 0) {
        host.erase("memory");
      } else {
        host["memory"] = anyMemory();
      }
  }
}

// Two mount points may trade their indexes, but no two share one.
void RandomCluster::changeMapping() {
  if (below(2) == 0) {
    unsigned mount = below(std::size(kMounts));
    Json& mounts = state_["storageMappings"]["mounts"];
    const char* other = kMounts[below(std::size(kMounts))];
    if (below(3) == 0 && mounts.contains(kMounts[mount]) && mounts.contains(other)) {
      std::swap(mounts[kMounts[mount]]["index"], mounts[other]["index"]);
    } else if (below(4) == 0) {
      mounts.erase(kMounts[mount]);
    } else {
      uint32_t index = 1000 + 10 * mount + below(10);
      for (const auto& [mountpt, mapping] : mounts.items()) {
        if (mountpt != kMounts[mount] && mapping["index"] == index) return;  // by one that it traded with
      }
      mounts[kMounts[mount]] = {{"index", index},
                                {"type", kFixedDisk},
                                {"description", fmt::format("{} as {}", kMounts[mount], below(10))}};
    }
    return;
  }
  constexpr std::array<uint32_t, 5> kIndexes = {1, 2, 3, 100, 7};
  unsigned kind = below(kIndexes.size());
  Json& memory = state_["storageMappings"]["memory"];
  std::string key = std::to_string(static_cast<int>(kind) - 2);
  if (below(4) == 0) {
    memory.erase(key);
  } else {
    memory[key] = {{"index", kIndexes[kind]},
                   {"type", kRam},
                   {"description", fmt::format("memory {}.{}", kind, below(10))}};
  }
}

// What a manager must see

RandomCluster::Walk RandomCluster::expected() const {
  Walk walk;
  for (const auto& [name, column] : Oracle::walkOf(Oracle::stateOf(state_))) walk[name] = asAnswered(column);
  return walk;
}
