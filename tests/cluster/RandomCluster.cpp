#include "tests/cluster/RandomCluster.h"

#include <fmt/format.h>

#include <array>
#include <ctime>
#include <optional>

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

bool backplane(const std::string& intf) {
  constexpr std::string_view kPrefix = "Backplane";
  return intf.starts_with(kPrefix) && intf.size() > kPrefix.size() && isdigit(intf[kPrefix.size()]) != 0;
}

std::string integer(int64_t value) { return fmt::format("i:{}", static_cast<int32_t>(value)); }
std::string gauge(uint32_t value) { return fmt::format("u:{}", value); }
std::string octets(std::string text) {
  netsnmp_variable_list varbind{};
  varbind.type = ASN_OCTET_STR;
  varbind.val.string = reinterpret_cast<u_char*>(text.data());
  varbind.val_len = text.size();
  return SnmpTest::valueIn(varbind);
}
std::string objectIdentifier(const std::string& dotted) { return "o:" + dotted; }

// Of RFC 2579, in UTC.
std::string dateAndTime(double utc) {
  auto seconds = static_cast<time_t>(utc);
  std::tm tm{};
  gmtime_r(&seconds, &tm);
  int year = tm.tm_year + 1900;
  auto octet = [](int value) { return static_cast<char>(value); };
  return octets({octet(year / 256), octet(year % 256), octet(tm.tm_mon + 1), octet(tm.tm_mday),
                 octet(tm.tm_hour), octet(tm.tm_min), octet(tm.tm_sec),
                 octet(static_cast<int>((utc - static_cast<double>(seconds)) * 10)), '+', 0, 0});
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
  expectInterfaces(walk);
  expectReachability(walk);
  expectSystems(walk);
  expectProcessors(walk);
  expectStorage(walk);
  return walk;
}

void RandomCluster::expectInterfaces(Walk& walk) const {
  const Json* topology = find(state_, {"topology"});
  if (topology == nullptr) return;
  for (const auto& [local, neighbours] : topology->items()) {
    for (const auto& [remote, link] : neighbours.items()) {
      std::string intf = link["intf"];
      const Json* index = find(state_, {"interfaces", intf, "ifIndex"});
      if (index == nullptr || !backplane(intf)) continue;
      walk[{40, 1, 1, 1, 2, index->get<uint32_t>()}] = integer(number(local));
      walk[{40, 1, 1, 1, 3, index->get<uint32_t>()}] = integer(number(remote));
    }
  }
}

void RandomCluster::expectReachability(Walk& walk) const {
  for (const auto& [member, host] : state_["members"].items()) {
    const Json* reported = find(host, {"reachability"});
    if (reported == nullptr) continue;
    for (const auto& [neighbour, record] : reported->items()) {
      uint32_t state = 0;
      while (record["state"] != kStates[state]) ++state;
      uint32_t ifIndex = 0;
      if (record.contains("intf")) {
        const Json* index = find(state_, {"interfaces", record["intf"], "ifIndex"});
        if (index != nullptr) ifIndex = index->get<uint32_t>();
      }
      walk[{40, 1, 2, 1, 3, number(member), number(neighbour)}] = integer(ifIndex);
      walk[{40, 1, 2, 1, 4, number(member), number(neighbour)}] = integer(state + 1);
      walk[{40, 1, 2, 1, 5, number(member), number(neighbour)}] = "t:0";
    }
  }
}

void RandomCluster::expectSystems(Walk& walk) const {
  for (const auto& [member, host] : state_["members"].items()) {
    if (!host.contains("system") && !host.contains("processors") && !host.contains("storage") &&
        !host.contains("memory")) {
      continue;
    }
    const Json system = host.value("system", Json::object());
    uint32_t id = number(member);
    double uptime = system.value("uptime", 0.0);
    walk[{41, 1, 1, 1, 2, id}] =
        fmt::format("t:{}", static_cast<uint32_t>(static_cast<uint64_t>(uptime * 100)));
    walk[{41, 1, 1, 1, 3, id}] = dateAndTime(system.value("currentTimeUtc", 0.0));
    walk[{41, 1, 1, 1, 4, id}] = gauge(system.value("users", 0U));
    walk[{41, 1, 1, 1, 5, id}] = gauge(system.value("processes", 0U));
    walk[{41, 1, 1, 1, 6, id}] = integer(system.value("memorySize", 0U));
  }
}

void RandomCluster::expectProcessors(Walk& walk) const {
  for (const auto& [member, host] : state_["members"].items()) {
    const Json* processors = find(host, {"processors"});
    if (processors == nullptr) continue;
    for (const auto& [index, record] : processors->items()) {
      walk[{41, 1, 2, 1, 3, number(member), number(index)}] = integer(record["load"].get<int>());
    }
  }
}

void RandomCluster::expectStorage(Walk& walk) const {
  for (const auto& [member, host] : state_["members"].items()) {
    const Json* storage = find(host, {"storage"});
    if (storage != nullptr) {
      for (const auto& [mount, record] : storage->items()) {
        const Json* mapping = find(state_, {"storageMappings", "mounts", mount});
        if (mapping == nullptr) continue;
        std::vector<uint32_t> row = {41, 1, 3, 1, 0, number(member), (*mapping)["index"]};
        auto column = [&](uint32_t c) -> std::string& { return walk[(row[4] = c, row)]; };
        auto size = static_cast<uint32_t>(record["size"].get<uint64_t>());
        column(3) = objectIdentifier((*mapping)["type"]);
        column(4) = octets((*mapping)["description"]);
        column(5) = integer(record["allocationUnits"].get<uint32_t>());
        column(6) = integer(size);
        column(7) = integer(size - static_cast<uint32_t>(record["free"].get<uint64_t>()));
      }
    }
    if (const Json* memory = find(host, {"memory"})) expectMemory(walk, number(member), *memory);
  }
}

void RandomCluster::expectMemory(Walk& walk, uint32_t member, const Json& memory) const {
  const Json* mappings = find(state_, {"storageMappings", "memory"});
  if (mappings == nullptr) return;
  static const std::map<uint32_t, std::string> kAmounts = {
      {1, "free"}, {100, "available"}, {2, "nonBuffer"}, {3, "nonCache"}};
  for (const auto& [kind, mapping] : mappings->items()) {
    uint32_t index = mapping["index"];
    uint32_t total = memory.value("total", 0U);
    uint32_t used = 0;
    if (auto amount = kAmounts.find(index); total != 0 && amount != kAmounts.end()) {
      used = total - memory.value(amount->second, 0U);
    }
    std::vector<uint32_t> row = {41, 1, 3, 1, 0, member, index};
    auto column = [&](uint32_t c) -> std::string& { return walk[(row[4] = c, row)]; };
    column(3) = objectIdentifier(mapping["type"]);
    column(4) = octets(mapping["description"]);
    column(5) = integer(1024);
    column(6) = integer(total);
    column(7) = integer(used);
  }
}
