#include "tests/oracle/Entities.h"

namespace Oracle {
namespace {

// Calls visit(member, entity) for those of the directory's entities that are of the type.
template <class Type, class Visit>
void forEach(const Kor::Dir& dir, Visit visit) {
  for (auto at = dir.entities().begin(); at; at.next()) {
    if (const auto* entity = dynamic_cast<const Type*>(dir.entityPtr(at.key()).get())) {
      visit(memberOf(at.key()), *entity);
    }
  }
}

std::map<Pair, std::string> linksIn(const Trel::TopologyConfig& topology) {
  std::map<Pair, std::string> links;
  for (auto member = topology.topoConfig().begin(); member; member.next()) {
    for (auto neighbour = (*member.value())->neighbor().begin(); neighbour; neighbour.next()) {
      links[{member.key().id(), neighbour.key().id()}] = neighbour.value()->name();
    }
  }
  return links;
}

std::map<std::string, uint32_t> indexesIn(const IntfSnmp::IfMib& ifMib) {
  std::map<std::string, uint32_t> indexes;
  for (auto at = ifMib.ifIndexByIntfId().begin(); at; at.next()) indexes[at.key().name()] = *at.value();
  return indexes;
}

Report reportOf(const Trel::ReachabilityState& record) {
  const auto& interface = record.backplaneChannelIntfId();
  return {interface ? interface->name() : "", record.state(), record.lastChangeNs()};
}

System systemOf(const HostResources::HostResources& host) {
  const auto& figures = host.system();
  return {figures.systemUptime, figures.currentTimeUtc, figures.systemNumUsers, figures.systemProcesses,
          figures.memorySize};
}

Host hostOf(const HostResources::HostResources& entity) {
  Host host{.system = systemOf(entity)};
  for (auto at = entity.processorTable().begin(); at; at.next()) host.loads[at.key()] = (*at.value())->load();
  for (auto at = entity.storageInfoTable().begin(); at; at.next()) {
    const HostResources::StorageInfo& info = **at.value();
    host.storage[at.key()] = {info.allocationUnits(), info.size(), info.free()};
  }
  if (entity.memInfo()) {
    const auto& amounts = entity.memInfo()->amounts();
    host.memory = {amounts.total.value_or(0), amounts.free.value_or(0), amounts.available.value_or(0),
                   amounts.nonBuffer.value_or(0), amounts.nonCache.value_or(0)};
  }
  return host;
}

std::multimap<uint32_t, Host> hostsIn(const Kor::Dir& dir) {
  std::multimap<uint32_t, Host> hosts;
  forEach<HostResources::HostResources>(dir, [&](uint32_t member, const auto& host) {
    hosts.insert({member, hostOf(host)});
  });
  return hosts;
}

Mapping mappingOf(const HostResourcesMib::StorageTableEntry& mapping) {
  return {mapping.index, mapping.type.text(), mapping.description};
}

}  // namespace

Rows interfaceRows(const Trel::TopologyConfig& topology, const IntfSnmp::IfMib& ifMib) {
  return interfaceRows({.links = linksIn(topology), .indexes = indexesIn(ifMib)});
}

Rows reachabilityRows(const Kor::Dir& reachabilityDir, const IntfSnmp::IfMib& ifMib) {
  State state{.indexes = indexesIn(ifMib)};
  forEach<Trel::ReachabilityStatus>(reachabilityDir, [&](uint32_t member, const auto& status) {
    for (auto at = status.reachabilityStatus().begin(); at; at.next()) {
      state.reports.insert({{member, at.key().id()}, reportOf(**at.value())});
    }
  });
  return reachabilityRows(state);
}

Rows systemRows(const Kor::Dir& hostResourcesDir) { return systemRows({.hosts = hostsIn(hostResourcesDir)}); }
Rows processorRows(const Kor::Dir& hostResourcesDir) {
  return processorRows({.hosts = hostsIn(hostResourcesDir)});
}

Rows storageRows(const Kor::Dir& hostResourcesDir, const HostResourcesMib::StorageEntryMappings& mappings) {
  State state{.hosts = hostsIn(hostResourcesDir)};
  for (auto at = mappings.mountEntries().begin(); at; at.next()) {
    state.mounts[at.key()] = mappingOf(*at.value());
  }
  for (auto at = mappings.memEntries().begin(); at; at.next()) {
    state.memoryKinds.push_back(mappingOf(*at.value()));
  }
  return storageRows(state);
}

std::optional<uint32_t> indexOfLink(const Trel::TopologyConfig& topology, const IntfSnmp::IfMib& ifMib,
                                    const Pair& members) {
  for (const auto& [key, columns] : interfaceRows(topology, ifMib)) {
    if (columns == linkColumns(members)) return key.first;
  }
  return std::nullopt;
}

Columns columnsOf(const TrelSnmp::TrelIfEntry& entry) {
  return linkColumns({entry.localMemberId(), entry.remoteMemberId()});
}

Columns columnsOf(const TrelSnmp::TrelReachabilityEntry& entry) {
  if (!entry.reachabilityState()) return {};
  return reportColumns(entry.baIfIndex(), reportOf(*entry.reachabilityState()));
}

Columns columnsOf(const TrelSnmp::TrelHrSystemEntry& entry) {
  return entry.hostResources() ? systemColumns(systemOf(*entry.hostResources())) : Columns();
}

Columns columnsOf(const TrelSnmp::TrelProcessorEntry& entry) {
  return entry.processor() ? processorColumns(entry.processor()->load()) : Columns();
}

Columns columnsOf(const TrelSnmp::TrelHrStorageEntry& entry) {
  Mapping mapping{.type = entry.type().text(), .description = entry.descr()};
  return storageColumns(mapping, entry.allocationUnits(), entry.size(), entry.used());
}

}  // namespace Oracle
