#include "tests/simulation/Oracle.h"

#include <algorithm>

#include "tests/simulation/State.h"

namespace Simulation {
namespace {

Claims sorted(Claims claims) {
  std::stable_sort(claims.begin(), claims.end(),
                   [](const Claim& a, const Claim& b) { return a.key < b.key; });
  return claims;
}

bool isDigit(char character) { return character >= '0' && character <= '9'; }

}  // namespace

uint32_t memberOf(std::string_view directoryKey) {
  uint32_t member = 0;
  for (char digit : directoryKey) {
    if (!isDigit(digit)) return 0;
    member = member * 10 + static_cast<uint32_t>(digit - '0');
    if (member > 255) return 0;
  }
  return member;
}

bool isBackplane(std::string_view interface) {
  const std::string_view kind = "Backplane";
  return interface.size() > kind.size() && interface.substr(0, kind.size()) == kind &&
         isDigit(interface[kind.size()]);
}

std::optional<uint32_t> indexOfLink(const Trel::TopologyConfig& topology, const IntfSnmp::IfMib& ifMib,
                                    uint32_t local, uint32_t remote) {
  const auto* config = topology.topoConfig().find(Trel::MemberId(static_cast<uint8_t>(local)));
  if (config == nullptr) return std::nullopt;
  const Lanix::IntfId* interface = (*config)->neighbor().find(Trel::MemberId(static_cast<uint8_t>(remote)));
  if (interface == nullptr || !isBackplane(interface->name())) return std::nullopt;
  const uint32_t* index = ifMib.ifIndexByIntfId().find(*interface);
  return index != nullptr ? std::optional(*index) : std::nullopt;
}

Claims interfaceClaims(const Trel::TopologyConfig& topology, const IntfSnmp::IfMib& ifMib) {
  Claims claims;
  for (auto member = topology.topoConfig().begin(); member; member.next()) {
    uint32_t local = member.key().id();
    for (auto neighbour = (*member.value())->neighbor().begin(); neighbour; neighbour.next()) {
      uint32_t remote = neighbour.key().id();
      if (auto index = indexOfLink(topology, ifMib, local, remote)) {
        claims.push_back({{*index, 0}, {.x = local, .y = remote}});
      }
    }
  }
  return sorted(std::move(claims));
}

Claims reachabilityClaims(const Kor::Dir& reachabilityDir, const IntfSnmp::IfMib& ifMib) {
  Claims claims;
  auto interfaces = static_cast<uint32_t>(serial(&ifMib));
  for (auto entry = reachabilityDir.entities().begin(); entry; entry.next()) {
    const auto* reach = reachAt(reachabilityDir, entry.key());
    if (reach == nullptr) continue;
    for (auto neighbour = reach->reachabilityStatus().begin(); neighbour; neighbour.next()) {
      claims.push_back({{memberOf(entry.key()), neighbour.key().id()},
                        {.record = serial(neighbour.value()->get()), .x = interfaces},
                        valueOf(neighbour.value()->get())});
    }
  }
  return sorted(std::move(claims));
}

Claims systemClaims(const Kor::Dir& hostResourcesDir) {
  Claims claims;
  for (auto entry = hostResourcesDir.entities().begin(); entry; entry.next()) {
    const auto* host = hostAt(hostResourcesDir, entry.key());
    if (host != nullptr)
      claims.push_back({{memberOf(entry.key()), 0}, {.record = serial(host)}, valueOf(host)});
  }
  return sorted(std::move(claims));
}

Claims processorClaims(const Kor::Dir& hostResourcesDir) {
  Claims claims;
  for (auto entry = hostResourcesDir.entities().begin(); entry; entry.next()) {
    const auto* host = hostAt(hostResourcesDir, entry.key());
    if (host == nullptr) continue;
    for (auto processor = host->processorTable().begin(); processor; processor.next()) {
      const auto* record = processor.value()->get();
      claims.push_back(
          {{memberOf(entry.key()), processor.key()}, {.record = serial(record)}, valueOf(record)});
    }
  }
  return sorted(std::move(claims));
}

Claims storageClaims(const Kor::Dir& hostResourcesDir,
                     const HostResourcesMib::StorageEntryMappings& mappings) {
  Claims claims;
  for (auto entry = hostResourcesDir.entities().begin(); entry; entry.next()) {
    const auto* host = hostAt(hostResourcesDir, entry.key());
    if (host == nullptr) continue;
    uint32_t member = memberOf(entry.key());
    auto claim = [&](const HostResourcesMib::StorageTableEntry& mapping, const auto* record,
                     StorageKind kind) {
      claims.push_back({{member, mapping.index},
                        {.record = serial(record), .x = serial(mapping), .y = kind},
                        valueOf(record)});
    };
    for (auto mount = host->storageInfoTable().begin(); mount; mount.next()) {
      const auto* mapping = mappings.mountEntries().find(mount.key());
      if (mapping != nullptr) claim(*mapping, mount.value()->get(), kMountRow);
    }
    if (!host->memInfo()) continue;
    for (auto kind = mappings.memEntries().begin(); kind; kind.next()) {
      claim(*kind.value(), host->memInfo().get(), kMemoryRow);
    }
  }
  return sorted(std::move(claims));
}

}  // namespace Simulation
