#include "tests/simulation/State.h"

#include <fmt/format.h>

#include "tests/simulation/Places.h"
#include "tests/support/Random.h"

namespace Simulation {
namespace {

constexpr uint64_t kTickNs = 10'000'000;

std::string named(const char* name, uint64_t serial) { return fmt::format("{}#{}", name, serial); }

}  // namespace

const State::Reach* reachAt(const Kor::Dir& dir, std::string_view key) {
  return typed<State::Reach>(dir.entityPtr(key));
}
const State::Host* hostAt(const Kor::Dir& dir, std::string_view key) {
  return typed<State::Host>(dir.entityPtr(key));
}

State::State(const Conditions& conditions, Zavro::ManualClock& clock,
             Zavro::Ptr<HostResourcesMib::StorageEntryMappings> mappings)
    : keepRecords_(conditions.keepRecords), clock_(clock) {
  for (size_t i = 0; i < kSets; ++i) {
    sets_[i] = {.mib = TrelSnmp::trelMibFactory("trelMib"),
                .status = Zavro::makePtr<Snmp::Status>("status"),
                .ifMib = Zavro::makePtr<IntfSnmp::IfMib>(named("ifMib", i)),
                .topology = Zavro::makePtr<Trel::TopologyConfig>("topology"),
                .reachabilityDir = Zavro::makePtr<Kor::Dir>("reachabilityDir"),
                .hostResourcesDir = Zavro::makePtr<Kor::Dir>("hostResourcesDir"),
                .mappings = i == 0 ? mappings : Zavro::makePtr<HostResourcesMib::StorageEntryMappings>()};
  }
}

// -- Records

Zavro::Ptr<const Trel::ReachabilityState> State::reachability(uint32_t draw) {
  using Record = Trel::ReachabilityState;
  Support::Random random(draw);
  auto state = static_cast<Record::State>(
      random.below(Kor::kNames<Record::State>.size() + 1));  // one that has no name, too
  std::optional<Lanix::IntfId> intf;
  if (random.percent(70)) intf = interfaceAt(random.below(kInterfaces.size()));
  // Mostly now, sometimes long ago or in a distant future; the serial stands below the resolution of a tick.
  uint64_t tick = clock_.utcNs() / kTickNs;
  if (random.percent(10))
    tick = random.percent(50) ? random.below(1000) : ~uint64_t{0} / kTickNs - 1 - random.below(1000);
  return kept(Zavro::makePtr<const Record>(state, intf, tick * kTickNs + ++lastSerial_));
}

Zavro::Ptr<const HostResources::Processor> State::processor() {
  auto load = static_cast<int16_t>(static_cast<uint16_t>(++lastSerial_ * 40503U));
  return kept(Zavro::makePtr<const HostResources::Processor>(load));
}

Zavro::Ptr<const HostResources::StorageInfo> State::storage(uint32_t draw) {
  Support::Random random(draw);
  uint64_t size = (random.any() >> random.below(44)) << 20 | ++lastSerial_;
  uint64_t free = random.percent(20) ? random.any() : random.any() % size;
  return kept(
      Zavro::makePtr<const HostResources::StorageInfo>(static_cast<uint32_t>(random.any()), size, free));
}

Zavro::Ptr<const HostResources::MemInfo> State::memInfo(uint32_t draw) {
  Support::Random random(draw);
  HostResources::MemInfo::Amounts amounts;
  auto amount = [&](uint32_t absent) {
    return random.percent(absent) ? std::nullopt : std::optional(static_cast<uint32_t>(random.any()));
  };
  amounts.total = random.percent(10) ? std::optional(0U) : amount(15);
  amounts.free = amount(30);
  amounts.available = amount(30);
  amounts.nonBuffer = amount(30);
  amounts.nonCache = ++lastSerial_;
  return kept(Zavro::makePtr<const HostResources::MemInfo>(amounts));
}

HostResourcesMib::StorageTableEntry State::mapping(uint32_t index) {
  uint32_t number = ++lastSerial_;
  return {Snmp::ObjectIdentifier(mappingType(number)), mappingDescription(number), index};
}

Zavro::Ptr<State::Reach> State::newReach() {
  return kept(Zavro::makePtr<Reach>(named("reach", ++lastSerial_)));
}

Zavro::Ptr<State::Host> State::newHost() {
  auto host = kept(Zavro::makePtr<Host>(named("host", ++lastSerial_)));
  host->systemIs({.systemProcesses = lastSerial_});  // tells it from others
  figures_[serial(host.get())] = host->system();
  return host;
}

Zavro::Ptr<Kor::Entity> State::wrongEntity() {
  return kept(Zavro::makePtr<Kor::Dir>(named("wrong", ++lastSerial_)));
}

// -- Rows of an earlier life

bool State::stale(const Step& step) {
  Support::Random random(step.value);
  TrelSnmp::TrelMib& mib = *sets_[step.set % kSets].mib;
  const InputSet& in = sets_[random.below(kSets)];
  // Half of the rows are what a pipeline would write, as far as one can be found.
  const std::string key = keyAt(random.below(kKeys.size()));
  uint32_t member = memberAt(random.below(kMembers.size())).id();
  auto table = static_cast<TableId>(step.key % kTables);
  switch (table) {
    case TableId::baIf: {
      uint32_t ifIndex = kIfIndexes[random.below(kIfIndexes.size())];
      if (mib.trelIfTable(ifIndex)) return false;
      mib.trelIfTableIs(ifIndex, member, memberAt(random.below(kMembers.size())).id());
      return true;
    }
    case TableId::reachability: {
      auto neighbour = memberAt(random.below(kMembers.size()));
      TrelSnmp::MemberIdPair pair(member, neighbour.id());
      const Reach* reach = reachAt(*in.reachabilityDir, std::to_string(member));
      const auto* record = reach != nullptr ? reach->reachabilityStatus().find(neighbour) : nullptr;
      if (mib.trelReachabilityTable(pair)) return false;
      mib.trelReachabilityTableIs(
          pair, record != nullptr && random.percent(70) ? *record : reachability(step.value), in.ifMib);
      return true;
    }
    case TableId::system: {
      const Host* host = hostAt(*in.hostResourcesDir, std::to_string(member));
      if (mib.trelHrSystemTable(member)) return false;
      mib.trelHrSystemTableIs(member, host != nullptr && random.percent(70) ? host : newHost().get());
      return true;
    }
    case TableId::processor: {
      TrelSnmp::ProcessorKey processorKey(member, processorAt(random.below(kProcessors.size())));
      const Host* host = hostAt(*in.hostResourcesDir, std::to_string(member));
      const auto* record =
          host != nullptr ? host->processorTable().find(processorKey.processorIndex()) : nullptr;
      if (mib.trelProcessorTable(processorKey)) return false;
      mib.trelProcessorTableIs(processorKey, record != nullptr && random.percent(70) ? *record : processor());
      return true;
    }
    default: {
      TrelSnmp::TrelHrStorageKey storageKey(member, kStorageIndexes[random.below(kStorageIndexes.size())]);
      if (mib.trelHrStorageTable(storageKey)) return false;
      auto mapped = mapping(storageKey.hrStorageIndex());
      if (random.percent(50)) {
        mib.trelHrStorageTableIs(Zavro::makePtr<const TrelSnmp::TrelHrStorageEntryMount>(
            storageKey, mapped.type, mapped.description, storage(step.value)));
      } else {
        mib.trelHrStorageTableIs(Zavro::makePtr<const TrelSnmp::TrelHrStorageEntryMem>(
            storageKey, mapped.type, mapped.description, memInfo(step.value)));
      }
      return true;
    }
  }
}

// -- The end

std::string State::leftovers() {
  std::string text;
  auto expect = [&text](const char* what, uint64_t found, uint64_t expected) {
    if (found != expected) text += fmt::format("{}: {} instead of {}; ", what, found, expected);
  };
  auto expectReach = [&](const Reach& reach) {
    expect("subscribers of a reachability status", reach.reachabilityStatus().subscribers(), 0);
  };
  auto expectHost = [&](const Host& host) {
    expect("subscribers of processors", host.processorTable().subscribers(), 0);
    expect("subscribers of file systems", host.storageInfoTable().subscribers(), 0);
  };
  // Rows of one set may hold what is of the other.
  for (const InputSet& in : sets_) {
    in.mib->trelIfTableDelAll();
    in.mib->trelReachabilityTableDelAll();
    in.mib->trelHrSystemTableDelAll();
    in.mib->trelProcessorTableDelAll();
    in.mib->trelHrStorageTableDelAll();
  }
  for (size_t i = 0; i < kSets; ++i) {
    InputSet& in = sets_[i];
    expect("subscribers of the MIB", in.mib->publisher().subscribers(), 0);
    expect("subscribers of the reachability directory", in.reachabilityDir->entities().subscribers(), 0);
    expect("subscribers of the host directory", in.hostResourcesDir->entities().subscribers(), 0);
    expect("subscribers of the topology", in.topology->topoConfig().subscribers(), 0);
    expect("subscribers of the interface indexes", in.ifMib->ifIndexByIntfId().subscribers(), 0);
    expect("subscribers of mount mappings", in.mappings->mountEntries().subscribers(), 0);
    expect("subscribers of memory mappings", in.mappings->memEntries().subscribers(), 0);
    for (auto at = in.reachabilityDir->entities().begin(); at; at.next()) {
      if (const Reach* reach = reachAt(*in.reachabilityDir, at.key())) expectReach(*reach);
    }
    for (auto at = in.hostResourcesDir->entities().begin(); at; at.next()) {
      if (const Host* host = hostAt(*in.hostResourcesDir, at.key())) expectHost(*host);
    }
    for (auto at = in.topology->topoConfig().begin(); at; at.next()) {
      expect("subscribers of a member's links", (*at.value())->neighbor().subscribers(), 0);
    }
    if (reachOutside_[i]) expectReach(*reachOutside_[i]);
    if (hostOutside_[i]) expectHost(*hostOutside_[i]);
    reachOutside_[i] = nullptr;
    hostOutside_[i] = nullptr;
    for (const auto& [what, counted] : std::initializer_list<std::pair<const char*, const Zavro::Counted*>>{
             {"references to the status", in.status.get()},
             {"references to the interface MIB", in.ifMib.get()},
             {"references to the topology", in.topology.get()},
             {"references to the reachability directory", in.reachabilityDir.get()},
             {"references to the host directory", in.hostResourcesDir.get()},
             {"references to the MIB", in.mib.get()}}) {
      expect(what, counted->useCount(), 1);
    }
  }
  sets_ = {};
  for (auto* kept : {&keptEntities_, &keptRecords_}) {
    for (const auto& counted : *kept) expect("references to a record or entity", counted->useCount(), 1);
    kept->clear();
  }
  return text;
}

}  // namespace Simulation
