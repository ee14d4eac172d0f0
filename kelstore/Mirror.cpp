#include "kelstore/Mirror.h"

#include <algorithm>
#include <array>

#include "kelstore/StorageMappings.h"

namespace Kelstore {
namespace {

// The element that a value becomes, and back.
uint32_t elementOf(const Interface& value) { return value.ifIndex; }
Interface valueOf(uint32_t ifIndex) { return {ifIndex}; }

const Lanix::IntfId& elementOf(const Link& value) { return value.intf; }
Link valueOf(const Lanix::IntfId& intf) { return {intf}; }

auto elementOf(const Processor& value) { return Zavro::makePtr<const HostResources::Processor>(value.load); }
Processor valueOf(const Zavro::Ptr<const HostResources::Processor>& record) { return {record->load()}; }

auto elementOf(const Storage& value) {
  return Zavro::makePtr<const HostResources::StorageInfo>(value.allocationUnits, value.size, value.free);
}
Storage valueOf(const Zavro::Ptr<const HostResources::StorageInfo>& record) {
  return {record->allocationUnits(), record->size(), record->free()};
}

auto elementOf(const Reachability& value) {
  return Zavro::makePtr<const Trel::ReachabilityState>(value.state, value.intf, value.lastChangeNs);
}
Reachability valueOf(const Zavro::Ptr<const Trel::ReachabilityState>& record) {
  return {record->state(), record->backplaneChannelIntfId(), record->lastChangeNs()};
}

// Makes the element under the key that of the value; a null value removes it.
template <class Typed, class Collection>
void applyElement(Collection& collection, const typename Collection::Key& key, const Value* value) {
  if (value == nullptr) {
    collection.del(key);
    return;
  }
  const Typed& typed = std::get<Typed>(*value);
  const auto* element = collection.find(key);
  if (element == nullptr || !(valueOf(*element) == typed)) collection.set(key, elementOf(typed));
}

const Mapping* asMapping(const Value* value) {
  return value == nullptr ? nullptr : &std::get<Mapping>(*value);
}

template <class Typed>
const Typed* findAs(const View& view, Kind kind, const std::string& member) {
  const Value* value = view.find({kind, member, {}});
  return value == nullptr ? nullptr : &std::get<Typed>(*value);
}

void applySystem(HostResources::HostResources& host, const View& view) {
  const auto* system = findAs<System>(view, Kind::system, host.name());
  host.systemIs(system == nullptr ? System() : *system);
}

void applyMemory(HostResources::HostResources& host, const View& view) {
  const auto* memory = findAs<Memory>(view, Kind::memory, host.name());
  if (memory == nullptr) {
    if (host.memInfo()) host.memInfoIs(nullptr);
  } else if (!host.memInfo() || host.memInfo()->amounts() != *memory) {
    host.memInfoIs(Zavro::makePtr<const HostResources::MemInfo>(*memory));
  }
}

template <size_t kCount>
bool anyOf(const View& view, const std::array<Kind, kCount>& kinds, std::string_view member) {
  return std::any_of(kinds.begin(), kinds.end(), [&](Kind kind) { return view.any(kind, member); });
}

template <class Entity>
Zavro::Ptr<Entity> entityIn(const Kor::Dir& dir, const std::string& name) {
  return boost::static_pointer_cast<Entity>(dir.entityPtr(name));
}

}  // namespace

Mirror::Mirror()
    : reachabilityDir_(Zavro::makePtr<Kor::Dir>("reachability")),
      hostResourcesDir_(Zavro::makePtr<Kor::Dir>("hostResources")),
      ifMib_(Zavro::makePtr<IntfSnmp::IfMib>("ifMib")),
      topologyConfig_(Zavro::makePtr<Trel::TopologyConfig>("topologyConfig")),
      mappings_(boost::static_pointer_cast<HostResourcesMib::StorageEntryMappings>(
          Kor::Entity::singletonIs(HostResourcesMib::StorageEntryMappings::kTypeName))) {}

void Mirror::apply(const Path& path, const View& view) {
  switch (path.kind) {
    case Kind::sysname:
      return applySysname(view.find(path));
    case Kind::mountMapping:
      return mountMappingIs(*mappings_, *hostResourcesDir_, path.first, asMapping(view.find(path)));
    case Kind::memoryMapping:
      return memoryMappingIs(*mappings_, *hostResourcesDir_, std::stoi(path.first),
                             asMapping(view.find(path)));
    case Kind::interface:
      return applyElement<Interface>(ifMib_->ifIndexByIntfId(), Lanix::IntfId(path.first), view.find(path));
    case Kind::link:
      return applyLink(path, view);
    case Kind::system:
    case Kind::memory:
    case Kind::processors:
    case Kind::processor:
    case Kind::storageAreas:
    case Kind::storage:
      return applyHost(path, view);
    case Kind::neighbours:
    case Kind::reachability:
      return applyReachability(path, view);
  }
}

void Mirror::applySysname(const Value* value) {
  std::string name = value == nullptr ? "" : std::get<std::string>(*value);
  if (name == sysname_) return;
  sysname_ = std::move(name);
  sysnameNotifier_.notify();
}

void Mirror::applyLink(const Path& path, const View& view) {
  Trel::MemberId member = Trel::MemberId::fromString(path.first);
  auto& members = topologyConfig_->topoConfig();
  if (!view.any(Kind::link, path.first)) {
    members.del(member);
    return;
  }
  if (members.find(member) == nullptr) members.set(member, Zavro::makePtr<Trel::TopoConfig>(member));
  Zavro::Ptr<Trel::TopoConfig> config = *members.find(member);
  applyElement<Link>(config->neighbor(), Trel::MemberId::fromString(path.second), view.find(path));
}

// Who follows a member's entity learns from its leaving the directory that all of its elements are gone; they
// are not removed one by one before.
void Mirror::applyHost(const Path& path, const View& view) {
  constexpr std::array kKinds = {Kind::system,    Kind::memory,       Kind::processors,
                                 Kind::processor, Kind::storageAreas, Kind::storage};
  using Entity = HostResources::HostResources;
  if (!anyOf(view, kKinds, path.first)) {
    hostResourcesDir_->entityPtrDel(path.first);
    return;
  }
  auto host = entityIn<Entity>(*hostResourcesDir_, path.first);
  if (!host) {
    // The figures are there before the entity is, since nothing tells of their change.
    host = Zavro::makePtr<Entity>(path.first);
    applySystem(*host, view);
    hostResourcesDir_->entityPtrIs(host);
  }
  if (path.kind == Kind::system) {
    applySystem(*host, view);
  } else if (path.kind == Kind::memory) {
    applyMemory(*host, view);
  } else if (path.kind == Kind::processor) {
    auto index = static_cast<uint32_t>(std::stoul(path.second));
    applyElement<Processor>(host->processorTable(), index, view.find(path));
  } else if (path.kind == Kind::storage) {
    applyElement<Storage>(host->storageInfoTable(), path.second, view.find(path));
  }
}

void Mirror::applyReachability(const Path& path, const View& view) {
  constexpr std::array kKinds = {Kind::neighbours, Kind::reachability};
  if (!anyOf(view, kKinds, path.first)) {
    reachabilityDir_->entityPtrDel(path.first);
    return;
  }
  auto status = entityIn<Trel::ReachabilityStatus>(*reachabilityDir_, path.first);
  if (!status) {
    status = Zavro::makePtr<Trel::ReachabilityStatus>(path.first);
    reachabilityDir_->entityPtrIs(status);
  }
  if (path.kind == Kind::reachability) {
    Trel::MemberId neighbour = Trel::MemberId::fromString(path.second);
    applyElement<Reachability>(status->reachabilityStatus(), neighbour, view.find(path));
  }
}

}  // namespace Kelstore
