#include "tests/wire/Clusters.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <chrono>
#include <set>

namespace Wire {
namespace {

using nlohmann::json;

// Two of them join no members, whatever is wired to them.
const std::vector<std::string> kInterfaces = {"Backplane0",   "Backplane1/1", "Backplane1/2", "Backplane1/3",
                                              "Backplane2/1", "Backplane2/2", "Backplane3/1", "Backplane7",
                                              "Backplane8/8", "Backplane9/9", "Ethernet1",    "Backplane"};
const std::vector<std::string> kMounts = {"/",        "/var/log", "/größe", "/mnt/a b",
                                          "/nowhere", "C:\\",     "/x/y/z"};
const std::vector<int> kMemoryKinds = {-2147483648, -1, 0, 1, 2, 3, 100, 2147483647};

uint64_t nowNs() {
  auto now = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<uint64_t>(std::chrono::nanoseconds(now).count());
}

bool isClaimed(std::set<uint32_t>& claimed, const json& object, const char* name) {
  return !claimed.insert(object.at(name).get<uint32_t>()).second;
}

// The elements of an object's member, as long as the condition does not take them away.
template <class Condition>
void eraseIf(json& elements, Condition condition) {
  for (auto at = elements.begin(); at != elements.end();)
    at = condition(*at) ? elements.erase(at) : std::next(at);
}

// Takes away what would make two rows claim one index.
void settle(json& document) {
  std::set<uint32_t> indexes;
  std::set<uint32_t> areas;
  std::set<std::string> wired;
  for (auto& [name, part] : document.items()) {
    if (name == "interfaces") {
      eraseIf(part, [&](const json& intf) { return isClaimed(indexes, intf, "ifIndex"); });
    } else if (name == "topology") {
      for (json& links : part) {
        eraseIf(links, [&](const json& link) { return !wired.insert(link.at("intf")).second; });
      }
    } else if (name == "storageMappings") {
      for (json& kind : part) {
        eraseIf(kind, [&](const json& mapping) { return isClaimed(areas, mapping, "index"); });
      }
    }
  }
}

}  // namespace

const json& Clusters::next() {
  constexpr unsigned kEmptyPercent = 3;
  constexpr unsigned kMixedPercent = 75;
  json fresh = random_.percent(kEmptyPercent) ? json{{"sysname", "wire"}} : any();
  last_ = random_.percent(kMixedPercent) ? mixed(last_, fresh) : fresh;
  settle(last_);
  return last_;
}

json Clusters::any() {
  json document = {{"sysname", "wire"}, {"members", json::object()}};
  document["interfaces"] = interfaces();
  addLinks(document);
  document["storageMappings"] = mappings();
  for (uint32_t count = random_.below(7); count > 0; --count) document["members"][memberId()] = member();
  return document;
}

json Clusters::interfaces() {
  json interfaces = json::object();
  for (const std::string& name : kInterfaces) {
    if (random_.percent(70)) interfaces[name] = {{"ifIndex", random_.edge()}};
  }
  return interfaces;
}

void Clusters::addLinks(json& document) {
  document["topology"] = json::object();
  for (const std::string& name : kInterfaces) {
    if (random_.percent(70)) document["topology"][memberId()][memberId()] = {{"intf", name}};
  }
}

json Clusters::mappings() {
  json mappings = {{"mounts", json::object()}, {"memory", json::object()}};
  for (const std::string& mount : kMounts) {
    if (random_.percent(60)) mappings["mounts"][mount] = mapping();
  }
  for (int kind : kMemoryKinds) {
    if (random_.percent(50)) mappings["memory"][std::to_string(kind)] = mapping();
  }
  return mappings;
}

json Clusters::mapping() {
  static const std::vector<uint32_t> kKinds = {1, 2, 3, 100};
  static const std::vector<std::string> kDescriptions = {"",
                                                         "/",
                                                         "größe",
                                                         std::string(255, 'd'),
                                                         std::string(127, 'x'),
                                                         std::string(128, 'y'),
                                                         "a \\b\"\xc2\xa0~"};
  return {{"index", random_.percent(50) ? random_.of(kKinds) : random_.edge()},
          {"type", type()},
          {"description", random_.of(kDescriptions)}};
}

std::string Clusters::type() {
  static const std::vector<std::string> kTypes = {
      "1.3.6.1.2.1.25.2.1.4", ".1.3.6.1.2.1.25.2.1.2", "0.0", "1.39", "2.999.4294967295", "2.4294967215"};
  if (random_.percent(90)) return random_.of(kTypes);
  // As many sub-identifiers as there can be, and one less.
  std::vector<uint32_t> subIds = {1, 3};
  uint64_t length = random_.from(127, 128);
  while (subIds.size() < length) subIds.push_back(random_.edge());
  return fmt::format("{}", fmt::join(subIds, "."));
}

json Clusters::member() {
  json member = json::object();
  if (random_.percent(70)) member["system"] = system();
  if (random_.percent(70)) {
    for (uint64_t count = random_.from(1, 6); count > 0; --count) {
      static const std::vector<int> kLoads = {-32768, -129, -128, -1, 0, 1, 100, 127, 128, 255, 256, 32767};
      member["processors"][std::to_string(random_.edge())] = {{"load", random_.of(kLoads)}};
    }
  }
  if (random_.percent(60)) {
    for (const std::string& mount : kMounts) {
      if (random_.percent(60)) member["storage"][mount] = file();
    }
  }
  if (random_.percent(60)) member["memory"] = memory();
  if (random_.percent(70)) {
    for (uint64_t count = random_.from(1, 8); count > 0; --count) {
      member["reachability"][memberId()] = report();
    }
  }
  return member;
}

json Clusters::report() {
  static const std::vector<json> kStates = {
      "unknown", "initializing", "reachable", "degraded", "unreachable", "disabled", 0, 1, 2, 3, 4, 5};
  json report = {{"state", random_.of(kStates)}, {"lastChange", lastChange()}};
  if (random_.percent(80)) report["intf"] = random_.of(kInterfaces);
  return report;
}

uint64_t Clusters::lastChange() {
  // Not to come: that reads as the uptime of the moment in which it is read.
  constexpr uint64_t kSecond = 1'000'000'000;
  while (true) {
    std::vector<uint64_t> times = {0, 1, nowNs() - random_.from(0, 100'000 * kSecond),
                                   nowNs() - random_.from(0, 10 * kSecond)};
    uint64_t time = random_.of(times);
    if (clock_.knows(time)) return time;
  }
}

json Clusters::system() {
  // Hundredths and tenths of a second, and a little more, which does not count. 65535 ends what DateAndTime
  // can tell.
  static const std::vector<double> kTicks = {0,   1,        29,           57,           99,
                                             100, 12345678, 4294967295.0, 4294967296.0, 1e12};
  static const std::vector<double> kTenths = {
      0, 1, 9, 17673125999, 17672256019, 42949672960, 21474836480, 9516096000, 40981247999, 20059491455980};
  double more = random_.percent(50) ? 0 : 0.004;
  return {{"uptime", random_.of(kTicks) / 100 + more},
          {"currentTimeUtc", random_.of(kTenths) / 10 + more},
          {"users", random_.edge()},
          {"processes", random_.edge()},
          {"memorySize", random_.edge()}};
}

json Clusters::memory() {
  json memory = json::object();
  for (const char* amount : {"total", "free", "available", "nonBuffer", "nonCache"}) {
    if (random_.percent(75)) memory[amount] = random_.edge();
  }
  return memory;
}

json Clusters::file() {
  auto units = [this] {
    return random_.percent(50) ? uint64_t{random_.edge()} : random_.any() >> random_.below(64);
  };
  return {{"allocationUnits", random_.edge()}, {"size", units()}, {"free", units()}};
}

std::string Clusters::memberId() {
  static const std::vector<int> kIds = {0, 1, 2, 3, 9, 10, 127, 128, 254, 255};
  return std::to_string(random_.of(kIds));
}

json Clusters::mixed(const json& first, const json& second) {
  constexpr unsigned kDeeperPercent = 60;
  constexpr unsigned kChangePercent = 15;
  json mix = json::object();
  std::set<std::string> names;
  for (const json* part : {&first, &second}) {
    for (const auto& [name, value] : part->items()) names.insert(name);
  }
  for (const std::string& name : names) {
    bool both = first.contains(name) && second.contains(name);
    if (both && first[name].is_object() && second[name].is_object() && random_.percent(kDeeperPercent)) {
      mix[name] = mixed(first[name], second[name]);
      continue;
    }
    const json& source = random_.percent(kChangePercent) ? second : first;
    if (source.contains(name)) mix[name] = source[name];
  }
  return mix;
}

}  // namespace Wire
