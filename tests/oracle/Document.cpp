#include "tests/oracle/Document.h"

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>

namespace Oracle {
namespace {

using nlohmann::json;

// What may be missing is an empty object then.
const json& at(const json& object, const std::string& name) {
  static const json nothing = json::object();
  auto found = object.find(name);
  return found == object.end() ? nothing : *found;
}

uint32_t numberOf(const std::string& text) { return static_cast<uint32_t>(std::stoul(text)); }

uint32_t stateNumber(const json& state) {
  constexpr std::array kNames = {"unknown",  "initializing", "reachable",
                                 "degraded", "unreachable",  "disabled"};
  if (state.is_number()) return state;
  return static_cast<uint32_t>(std::find(kNames.begin(), kNames.end(), state.get<std::string>()) -
                               kNames.begin());
}

Report reportOf(const json& report) {
  return {report.value("intf", ""), stateNumber(report.at("state")), report.at("lastChange")};
}

Memory memoryOf(const json& memory) {
  auto amount = [&](const char* name) { return memory.value(name, uint32_t{0}); };
  return {amount("total"), amount("free"), amount("available"), amount("nonBuffer"), amount("nonCache")};
}

Host hostOf(const json& member) {
  const json& system = at(member, "system");
  auto count = [&](const char* name) { return system.value(name, uint32_t{0}); };
  Host host{.system = {system.value("uptime", 0.0), system.value("currentTimeUtc", 0.0), count("users"),
                       count("processes"), count("memorySize")}};
  for (const auto& [index, figures] : at(member, "processors").items()) {
    host.loads[numberOf(index)] = figures.at("load");
  }
  for (const auto& [mount, info] : at(member, "storage").items()) {
    host.storage[mount] = {info.at("allocationUnits"), info.at("size"), info.at("free")};
  }
  if (member.contains("memory")) host.memory = memoryOf(member.at("memory"));
  return host;
}

Mapping mappingOf(const json& mapping) {
  std::string type = mapping.at("type");
  return {mapping.at("index"), type.substr(type.starts_with('.') ? 1 : 0), mapping.at("description")};
}

bool isHost(const json& member) {
  constexpr std::array kFigures = {"system", "processors", "storage", "memory"};
  return std::any_of(kFigures.begin(), kFigures.end(),
                     [&](const char* name) { return member.contains(name); });
}

}  // namespace

State stateOf(const json& document) {
  State state;
  for (const auto& [member, neighbours] : at(document, "topology").items()) {
    for (const auto& [neighbour, link] : neighbours.items()) {
      state.links[{numberOf(member), numberOf(neighbour)}] = link.at("intf");
    }
  }
  for (const auto& [name, interface] : at(document, "interfaces").items()) {
    if (interface.contains("ifIndex")) state.indexes[name] = interface.at("ifIndex");
  }
  for (const auto& [key, member] : at(document, "members").items()) {
    for (const auto& [neighbour, report] : at(member, "reachability").items()) {
      state.reports.insert({{numberOf(key), numberOf(neighbour)}, reportOf(report)});
    }
    if (isHost(member)) state.hosts.insert({numberOf(key), hostOf(member)});
  }
  const json& mappings = at(document, "storageMappings");
  for (const auto& [mount, mapping] : at(mappings, "mounts").items())
    state.mounts[mount] = mappingOf(mapping);
  for (const auto& [kind, mapping] : at(mappings, "memory").items()) {
    state.memoryKinds.push_back(mappingOf(mapping));
  }
  return state;
}

}  // namespace Oracle
