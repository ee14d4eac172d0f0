#include "tests/simulation/Places.h"
#include "tests/simulation/State.h"
#include "tests/support/Random.h"

namespace Simulation {
namespace {

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

bool State::apply(const Step& step) {
  const InputSet& in = sets_[step.set % kSets];
  return applyReach(step, in) || applyTopology(step, in) || applyHost(step, in) ||
         applyHostEntity(step, in) || applyMapping(step, in);
}

// -- What members report of their neighbours

void State::draw(Reach& reach, uint32_t value) {
  Support::Random random(value);
  for (uint32_t count = random.below(5); count > 0; --count) {
    auto neighbour = memberAt(random.below(kMembers.size()));
    reach.reachabilityStatus().set(neighbour, reachability(static_cast<uint32_t>(random.any())));
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
  Support::Random random(value);
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
  Support::Random random(value);
  for (uint32_t count = random.below(4); count > 0; --count) {
    host.processorTable().set(processorAt(random.below(kProcessors.size())), processor());
  }
  for (uint32_t count = random.below(4); count > 0; --count) {
    auto mount = mountAt(random.below(kMounts.size()));
    host.storageInfoTable().set(mount, storage(static_cast<uint32_t>(random.any())));
  }
  if (random.percent(60)) host.memInfoIs(memInfo(static_cast<uint32_t>(random.any())));
}

bool State::applyHost(const Step& step, const InputSet& in) {
  bool outside = step.kind == Kind::hostOutside;
  Zavro::Ptr<Host> host =
      outside ? hostOutside_[step.set % kSets]
              : Zavro::Ptr<Host>(typed<Host>(in.hostResourcesDir->entityPtr(keyAt(step.key))));
  if (!host) return false;
  uint32_t processorIndex = processorAt(step.item);
  const std::string mountPoint = mountAt(step.item);
  Support::Random random(step.value);
  switch (step.kind) {
    case Kind::figures: {
      Host::System figures{.systemUptime = random.below(0xffffffff) / 100.0,
                           .currentTimeUtc = static_cast<double>(clock_.utcNs() / 100'000'000) / 10.0,
                           .systemNumUsers = static_cast<uint32_t>(random.any()),
                           .systemProcesses = static_cast<uint32_t>(random.any()),
                           .memorySize = static_cast<uint32_t>(random.any())};
      if (random.percent(10)) figures.systemUptime = -1;
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

}  // namespace Simulation
