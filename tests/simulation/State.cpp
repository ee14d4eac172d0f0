#include "State.h"

#include <fmt/format.h>

#include "Random.h"
#include "Universe.h"

namespace Simulation {
namespace {

constexpr uint64_t kTickNs = 10'000'000;

std::string named(const char* name, uint64_t serial) { return fmt::format("{}#{}", name, serial); }
std::string keyAt(uint32_t place) { return std::string(kKeys[place % kKeys.size()]); }
Trel::MemberId memberAt(uint32_t place) { return Trel::MemberId(kMembers[place % kMembers.size()]); }
Lanix::IntfId interfaceAt(uint32_t place) {
  return Lanix::IntfId(std::string(kInterfaces[place % kInterfaces.size()]));
}
uint32_t processorAt(uint32_t place) { return kProcessors[place % kProcessors.size()]; }
std::string mountAt(uint32_t place) { return std::string(kMounts[place % kMounts.size()]); }

template <class Type>
Type* typed(const Zavro::Ptr<Kor::Entity>& entity) {
  return entity && &entity->korType() == &Type::type() ? static_cast<Type*>(entity.get()) : nullptr;
}

template <class Collection>
void copyAll(const Collection& from, Collection& to) {
  for (auto at = from.begin(); at; at.next()) to.set(at.key(), *at.value());
}

// Puts what is under the key there once more.
template <class Collection, class ItemKey>
bool again(Collection& collection, const ItemKey& key) {
  const auto* found = collection.find(key);
  if (found == nullptr) return false;
  auto value = *found;
  collection.set(key, value);
  return true;
}

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

bool State::apply(const Step& step) {
  const InputSet& in = sets_[step.set % kSets];
  return applyReach(step, in) || applyTopology(step, in) || applyHost(step, in) ||
         applyHostEntity(step, in) || applyMapping(step, in);
}

// -- Records

Zavro::Ptr<const Trel::ReachabilityState> State::reachability(uint32_t draw) {
  using Record = Trel::ReachabilityState;
  Random random(draw);
  auto state = static_cast<Record::State>(random.below(Record::kStates + 1));  // one that has no name, too
  std::optional<Lanix::IntfId> intf;
  if (random.chance(70)) intf = interfaceAt(random.below(kInterfaces.size()));
  // Mostly now, sometimes long ago or in a distant future; the serial stands below the resolution of a tick.
  uint64_t tick = clock_.utcNs() / kTickNs;
  if (random.chance(10))
    tick = random.chance(50) ? random.below(1000) : ~uint64_t{0} / kTickNs - 1 - random.below(1000);
  return kept(Zavro::makePtr<const Record>(state, intf, tick * kTickNs + ++lastSerial_));
}

Zavro::Ptr<const HostResources::Processor> State::processor() {
  auto load = static_cast<int16_t>(static_cast<uint16_t>(++lastSerial_ * 40503U));
  return kept(Zavro::makePtr<const HostResources::Processor>(load));
}

Zavro::Ptr<const HostResources::StorageInfo> State::storage(uint32_t draw) {
  Random random(draw);
  uint64_t size = (random.next() >> random.below(44)) << 20 | ++lastSerial_;
  uint64_t free = random.chance(20) ? random.next() : random.next() % size;
  return kept(
      Zavro::makePtr<const HostResources::StorageInfo>(static_cast<uint32_t>(random.next()), size, free));
}

Zavro::Ptr<const HostResources::MemInfo> State::memInfo(uint32_t draw) {
  Random random(draw);
  HostResources::MemInfo::Amounts amounts;
  auto amount = [&](uint32_t absent) {
    return random.chance(absent) ? std::nullopt : std::optional(static_cast<uint32_t>(random.next()));
  };
  amounts.total = random.chance(10) ? std::optional(0U) : amount(15);
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
  figures_[serial(host.get())] = host->system();
  return host;
}

Zavro::Ptr<Kor::Entity> State::wrongEntity() {
  return kept(Zavro::makePtr<Kor::Dir>(named("wrong", ++lastSerial_)));
}

// -- What members report of their neighbours

void State::draw(Reach& reach, uint32_t value) {
  Random random(value);
  for (uint32_t count = random.below(5); count > 0; --count) {
    auto neighbour = memberAt(random.below(kMembers.size()));
    reach.reachabilityStatus().set(neighbour, reachability(static_cast<uint32_t>(random.next())));
  }
}

bool State::applyReach(const Step& step, const InputSet& in) {
  Kor::Dir& dir = *in.reachabilityDir;
  const std::string key = keyAt(step.key);
  Zavro::Ptr<Kor::Entity> there = dir.entityPtr(key);
  Zavro::Ptr<Reach> reach = typed<Reach>(there);
  Zavro::Ptr<Reach>& outside = reachOutside_[step.set % kSets];
  Trel::MemberId neighbour = memberAt(step.item);
  switch (step.kind) {
    case Kind::report:
      if (!reach) return false;
      reach->reachabilityStatus().set(neighbour, reachability(step.value));
      return true;
    case Kind::reportAgain:
      return reach && again(reach->reachabilityStatus(), neighbour);
    case Kind::reportCopied: {
      const Reach* other = reachAt(dir, keyAt(step.value));
      const auto* record = other != nullptr ? other->reachabilityStatus().find(neighbour) : nullptr;
      if (!reach || record == nullptr) return false;
      auto copied = *record;
      reach->reachabilityStatus().set(neighbour, copied);
      return true;
    }
    case Kind::withdraw:
      return reach && reach->reachabilityStatus().del(neighbour);
    case Kind::reachJoin: {
      auto entity = newReach();
      draw(*entity, step.value);
      if (reach) outside = reach;
      dir.entityPtrIs(key, entity);
      return true;
    }
    case Kind::reachAlike: {
      if (!reach) return false;
      auto entity = newReach();
      copyAll(reach->reachabilityStatus(), entity->reachabilityStatus());
      outside = reach;
      dir.entityPtrIs(key, entity);
      return true;
    }
    case Kind::reachSame:
      if (!there) return false;
      dir.entityPtrIs(key, there);
      return true;
    case Kind::reachWrong:
      if (reach) outside = reach;
      dir.entityPtrIs(key, wrongEntity());
      return true;
    case Kind::reachLeave:
      if (!there) return false;
      if (reach) outside = reach;
      dir.entityPtrDel(key);
      return true;
    case Kind::reachReturn: {
      if (!outside || outside == reach) return false;
      Zavro::Ptr<Reach> entity = outside;
      outside = reach;
      dir.entityPtrIs(key, entity);
      return true;
    }
    case Kind::reachOutside:
      if (!outside) return false;
      // Half of the time it takes back what it said.
      if (step.value % 2 == 0) return Zavro::Ptr<Reach>(outside)->reachabilityStatus().del(neighbour);
      Zavro::Ptr<Reach>(outside)->reachabilityStatus().set(neighbour, reachability(step.value));
      return true;
    default:
      return false;
  }
}

// -- Links and interface indexes

void State::draw(Trel::TopoConfig& config, uint32_t value) {
  Random random(value);
  for (uint32_t count = random.below(4); count > 0; --count) {
    auto neighbour = memberAt(random.below(kMembers.size()));
    config.neighbor().set(neighbour, interfaceAt(random.below(kInterfaces.size())));
  }
}

bool State::applyTopology(const Step& step, const InputSet& in) {
  auto& members = in.topology->topoConfig();
  Trel::MemberId local = memberAt(step.key);
  const auto* found = members.find(local);
  Zavro::Ptr<Trel::TopoConfig> config = found != nullptr ? *found : nullptr;
  switch (step.kind) {
    case Kind::wire:
      if (!config) return false;
      config->neighbor().set(memberAt(step.item), interfaceAt(step.value));
      return true;
    case Kind::unwire:
      return config && config->neighbor().del(memberAt(step.item));
    case Kind::topoJoin:
    case Kind::topoAlike: {
      if (step.kind == Kind::topoAlike && !config) return false;
      auto entity = kept(Zavro::makePtr<Trel::TopoConfig>(local));
      if (step.kind == Kind::topoJoin) {
        draw(*entity, step.value);
      } else {
        copyAll(config->neighbor(), entity->neighbor());
      }
      members.set(local, entity);
      return true;
    }
    case Kind::topoSame:
      return again(members, local);
    case Kind::topoLeave:
      return members.del(local);
    case Kind::ifIndex:
      in.ifMib->ifIndexByIntfId().set(interfaceAt(step.item), kIfIndexes[step.value % kIfIndexes.size()]);
      return true;
    case Kind::ifIndexDel:
      return in.ifMib->ifIndexByIntfId().del(interfaceAt(step.item));
    default:
      return false;
  }
}

// -- Hosts

void State::draw(Host& host, uint32_t value) {
  Random random(value);
  for (uint32_t count = random.below(4); count > 0; --count) {
    host.processorTable().set(processorAt(random.below(kProcessors.size())), processor());
  }
  for (uint32_t count = random.below(4); count > 0; --count) {
    auto mount = mountAt(random.below(kMounts.size()));
    host.storageInfoTable().set(mount, storage(static_cast<uint32_t>(random.next())));
  }
  if (random.chance(60)) host.memInfoIs(memInfo(static_cast<uint32_t>(random.next())));
}

bool State::applyHost(const Step& step, const InputSet& in) {
  bool outside = step.kind == Kind::hostOutside;
  Zavro::Ptr<Host> host =
      outside ? hostOutside_[step.set % kSets]
              : Zavro::Ptr<Host>(typed<Host>(in.hostResourcesDir->entityPtr(keyAt(step.key))));
  if (!host) return false;
  uint32_t processorIndex = processorAt(step.item);
  const std::string mountPoint = mountAt(step.item);
  Random random(step.value);
  switch (step.kind) {
    case Kind::figures: {
      Host::System figures{.systemUptime = random.below(0xffffffff) / 100.0,
                           .currentTimeUtc = static_cast<double>(clock_.utcNs() / 100'000'000) / 10.0,
                           .systemNumUsers = static_cast<uint32_t>(random.next()),
                           .systemProcesses = static_cast<uint32_t>(random.next()),
                           .memorySize = static_cast<uint32_t>(random.next())};
      if (random.chance(10)) figures.systemUptime = -1;
      host->systemIs(figures);
      figures_[serial(host.get())] = figures;
      return true;
    }
    case Kind::load:
      host->processorTable().set(processorIndex, processor());
      return true;
    case Kind::loadAgain:
      return again(host->processorTable(), processorIndex);
    case Kind::loadDel:
      return host->processorTable().del(processorIndex);
    case Kind::mount:
      host->storageInfoTable().set(mountPoint, storage(step.value));
      return true;
    case Kind::mountAgain:
      return again(host->storageInfoTable(), mountPoint);
    case Kind::unmount:
      return host->storageInfoTable().del(mountPoint);
    case Kind::memory:
      host->memInfoIs(memInfo(step.value));
      return true;
    case Kind::memoryAgain:
      host->memInfoIs(host->memInfo());
      return true;
    case Kind::memoryDel:
      host->memInfoIs(nullptr);
      return true;
    case Kind::hostOutside:
      switch (random.below(4)) {
        case 0:
          host->processorTable().set(processorIndex, processor());
          return true;
        case 1:
          return host->processorTable().del(processorIndex);
        case 2:
          host->storageInfoTable().set(mountPoint, storage(step.value));
          return true;
        default:
          host->memInfoIs(memInfo(step.value));
          return true;
      }
    default:
      return false;
  }
}

bool State::applyHostEntity(const Step& step, const InputSet& in) {
  Kor::Dir& dir = *in.hostResourcesDir;
  const std::string key = keyAt(step.key);
  Zavro::Ptr<Kor::Entity> there = dir.entityPtr(key);
  Zavro::Ptr<Host> host = typed<Host>(there);
  Zavro::Ptr<Host>& outside = hostOutside_[step.set % kSets];
  switch (step.kind) {
    case Kind::hostJoin: {
      auto entity = newHost();
      draw(*entity, step.value);
      if (host) outside = host;
      dir.entityPtrIs(key, entity);
      return true;
    }
    case Kind::hostAlike: {
      if (!host) return false;
      auto entity = newHost();
      copyAll(host->processorTable(), entity->processorTable());
      copyAll(host->storageInfoTable(), entity->storageInfoTable());
      entity->memInfoIs(host->memInfo());
      outside = host;
      dir.entityPtrIs(key, entity);
      return true;
    }
    case Kind::hostSame:
      if (!there) return false;
      dir.entityPtrIs(key, there);
      return true;
    case Kind::hostWrong:
      if (host) outside = host;
      dir.entityPtrIs(key, wrongEntity());
      return true;
    case Kind::hostLeave:
      if (!there) return false;
      if (host) outside = host;
      dir.entityPtrDel(key);
      return true;
    case Kind::hostReturn: {
      if (!outside || outside == host) return false;
      Zavro::Ptr<Host> entity = outside;
      outside = host;
      dir.entityPtrIs(key, entity);
      return true;
    }
    default:
      return false;
  }
}

// -- Storage mappings

void State::noteMapping(const Step& step, const HostResourcesMib::StorageTableEntry* before) {
  if (before != nullptr) onMapping_(step.set % kSets, before->index);
  if (step.kind == Kind::mapMount || step.kind == Kind::mapMemory) {
    onMapping_(step.set % kSets, kStorageIndexes[step.value % kStorageIndexes.size()]);
  }
}

bool State::applyMapping(const Step& step, const InputSet& in) {
  auto& mounts = in.mappings->mountEntries();
  auto& kinds = in.mappings->memEntries();
  const std::string mountPoint = mountAt(step.item);
  int32_t kind = kMemoryKinds[step.item % kMemoryKinds.size()];
  uint32_t index = kStorageIndexes[step.value % kStorageIndexes.size()];
  switch (step.kind) {
    case Kind::mapMount:
      noteMapping(step, mounts.find(mountPoint));
      mounts.set(mountPoint, mapping(index));
      return true;
    case Kind::unmapMount:
      noteMapping(step, mounts.find(mountPoint));
      return mounts.del(mountPoint);
    case Kind::mapMemory:
      noteMapping(step, kinds.find(kind));
      kinds.set(kind, mapping(index));
      return true;
    case Kind::unmapMemory:
      noteMapping(step, kinds.find(kind));
      return kinds.del(kind);
    default:
      return false;
  }
}

// -- Rows of an earlier life

bool State::stale(const Step& step) {
  Random random(step.value);
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
          pair, record != nullptr && random.chance(70) ? *record : reachability(step.value), in.ifMib);
      return true;
    }
    case TableId::system: {
      const Host* host = hostAt(*in.hostResourcesDir, std::to_string(member));
      if (mib.trelHrSystemTable(member)) return false;
      mib.trelHrSystemTableIs(member, host != nullptr && random.chance(70) ? host : newHost().get());
      return true;
    }
    case TableId::processor: {
      TrelSnmp::ProcessorKey processorKey(member, processorAt(random.below(kProcessors.size())));
      const Host* host = hostAt(*in.hostResourcesDir, std::to_string(member));
      const auto* record =
          host != nullptr ? host->processorTable().find(processorKey.processorIndex()) : nullptr;
      if (mib.trelProcessorTable(processorKey)) return false;
      mib.trelProcessorTableIs(processorKey, record != nullptr && random.chance(70) ? *record : processor());
      return true;
    }
    default: {
      TrelSnmp::TrelHrStorageKey storageKey(member, kStorageIndexes[random.below(kStorageIndexes.size())]);
      if (mib.trelHrStorageTable(storageKey)) return false;
      auto mapped = mapping(storageKey.hrStorageIndex());
      if (random.chance(50)) {
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
