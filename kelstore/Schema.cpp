#include "kelstore/Schema.h"

#include <algorithm>
#include <array>

#include "kelstore/Entities.h"
#include "kelstore/Fields.h"
#include "kelstore/Packed.h"
#include "kelstore/StorageMappings.h"
#include "kelstore/Trace.h"
#include "runtime/Text.h"

namespace Kelstore {
constexpr Runtime::JsonNumber kUptimeSeconds{0, 1e15};
// What fits 64 bits as nanoseconds.
constexpr Runtime::JsonNumber kMomentSeconds{0, 18446744073};

// ---- The fields of each type.

template <>
constexpr auto kFields<Expected> = std::tuple(field("name", &Expected::name, kName,
                                                    "the host's, for people"));

template <>
constexpr auto kFields<Interface> =
    std::tuple(field("ifIndex", &Interface::ifIndex,
                     "another one for each interface of the whole cluster: those that share one share a row"),
               field("machineIfIndex", &Interface::machineIfIndex,
                     "with which IF-MIB of the member itself has the interface; no table has it"));

template <>
constexpr auto kFields<Link> = std::tuple(field("intf", &Link::intf,
                                                "by which the member is wired to the neighbour"));

template <>
constexpr auto kFields<System> = std::tuple(field("uptime", &System::systemUptime, kUptimeSeconds, "seconds"),
                                            field("currentTimeUtc", &System::currentTimeUtc, kUtcSeconds,
                                                  "seconds since 1970 UTC"),
                                            field("users", &System::systemNumUsers, "sessions of users"),
                                            field("processes", &System::systemProcesses, "processes"),
                                            field("memorySize", &System::memorySize, "KiB"));

template <>
constexpr auto kFields<Memory> =
    std::tuple(field("total", &Memory::total, "KiB"), field("free", &Memory::free, "KiB"),
               field("available", &Memory::available, "KiB; free, or reclaimable without swapping"),
               field("nonBuffer", &Memory::nonBuffer, "KiB; all but buffers"),
               field("nonCache", &Memory::nonCache, "KiB; all but the page cache"));

template <>
constexpr auto kFields<Processor> = std::tuple(field("load", &Processor::load,
                                                     "percent; -1 when it is not known"));

template <>
constexpr auto kFields<Storage> = std::tuple(field("allocationUnits", &Storage::allocationUnits, "bytes"),
                                             field("size", &Storage::size, "units"),
                                             field("free", &Storage::free, "units"));

template <>
constexpr auto kFields<Reachability> =
    std::tuple(field("state", &Reachability::state, "what the member found last"),
               field("intf", &Reachability::intf, "by which it reaches the neighbour"),
               field("lastChange", &Reachability::lastChangeNs, "nanoseconds since 1970 UTC"));

template <>
constexpr auto kFields<Unread> =
    std::tuple(field("state", &Unread::state, "an answer is an error, or there is none"),
               field("since", &Unread::sinceUtc, kMomentSeconds,
                     "seconds since 1970 UTC: what it reads is from before, or was never known"),
               field("error", &Unread::error, "for people"));

template <>
constexpr auto kFields<Mapping> = std::tuple(field("index", &Mapping::index, "of the row"),
                                             field("type", &Mapping::type,
                                                   "one of the storage types of HOST-RESOURCES-MIB"),
                                             field("description", &Mapping::description, "for people"));

namespace {

std::optional<Value> decodeName(const nlohmann::json& json, Runtime::JsonNotes& notes) {
  if (auto name = kName.decode(json)) return Value(*std::move(name));
  notes.faults.push_back({"", Runtime::foundExpected(json, kName.expected())});
  return std::nullopt;
}

std::vector<FieldSpec> nameSpec() { return {{"", kName.expected(), false, ""}}; }

nlohmann::json encoded(const std::string& name) { return name; }
nlohmann::json encoded(const Present& /*value*/) { return nlohmann::json::object(); }
template <class Struct>
nlohmann::json encoded(const Struct& value) {
  return encodedObject(value);
}

// ---- From values to elements of collections, and back.

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

// Sets the element under the key to the value; null removes it. An unchanged element is not touched.
// Requires: elementOf(const Typed&) and valueOf(const Element&), inverse to each other.
template <class Typed, class Collection>
void elementIs(Collection& collection, const typename Collection::Key& key, const Value* value) {
  if (value == nullptr) {
    collection.del(key);
    return;
  }
  const Typed& typed = value->get<Typed>();
  const auto* element = collection.find(key);
  if (element == nullptr || !(valueOf(*element) == typed)) collection.set(key, elementOf(typed));
}

// ---- How each kind is applied.

void applySysname(Entities& entities, const Path& path, const View& view) {
  const Value* value = view.find(path);
  std::string name = value == nullptr ? "" : value->get<std::string>();
  if (name == std::exchange(entities.sysname, name)) return;
  entities.sysnameChanged.notify();
}

// Nothing: the path has no value any more.
void nameIs(std::map<Trel::MemberId, std::string>& names, const Path& path, std::optional<std::string> name) {
  auto member = keyOf<Trel::MemberId>(path.first());
  if (name) {
    names.insert_or_assign(member, *std::move(name));
  } else {
    names.erase(member);
  }
}

void applyExpected(Entities& entities, const Path& path, const View& view) {
  const Value* value = view.find(path);
  nameIs(entities.expected, path,
         value == nullptr ? std::nullopt : std::optional(value->get<Expected>().name.value_or("")));
}

void applyName(Entities& entities, const Path& path, const View& view) {
  const Value* value = view.find(path);
  nameIs(entities.names, path, value == nullptr ? std::nullopt : std::optional(value->get<std::string>()));
}

const Mapping* mappingAt(const Path& path, const View& view) {
  const Value* value = view.find(path);
  return value == nullptr ? nullptr : &value->get<Mapping>();
}

void applyMountMapping(Entities& entities, const Path& path, const View& view) {
  mountMappingIs(*entities.mappings, *entities.hostResources, std::string(path.first()),
                 mappingAt(path, view));
}

void applyMemoryMapping(Entities& entities, const Path& path, const View& view) {
  memoryMappingIs(*entities.mappings, *entities.hostResources, keyOf<int32_t>(path.first()),
                  mappingAt(path, view));
}

// The entity has the published index alone.
void applyInterface(Entities& entities, const Path& path, const View& view) {
  std::optional<Value> published;
  if (const Value* value = view.find(path)) published = Interface{value->get<Interface>().ifIndex};
  elementIs<Interface>(entities.ifMib->ifIndexByIntfId(), keyOf<Lanix::IntfId>(path.first()),
                       published ? &*published : nullptr);
}

void applyLink(Entities& entities, const Path& path, const View& view) {
  constexpr std::array kLinks = {Kind::link};
  auto member = keyOf<Trel::MemberId>(path.first());
  auto& members = entities.topologyConfig->topoConfig();
  const Value* value = view.find(path);
  if (value == nullptr && !view.any(kLinks, path.first())) {
    members.del(member);
    return;
  }
  if (members.find(member) == nullptr) members.set(member, Zavro::makePtr<Trel::TopoConfig>(member));
  Zavro::Ptr<Trel::TopoConfig> config = *members.find(member);
  elementIs<Link>(config->neighbor(), keyOf<Trel::MemberId>(path.second()), value);
}

void systemIs(HostResources::HostResources& host, const Value* value) {
  host.systemIs(value == nullptr ? System() : value->get<System>());
}

Zavro::Ptr<HostResources::HostResources> hostOf(Entities& entities, const Path& path, const Value* value,
                                                const View& view) {
  // A new entity has its figures before it enters the directory, since nothing announces their change.
  return memberEntity<HostResources::HostResources>(
      *entities.hostResources, MemberEntity::hostResources, path, value, view, [&](auto& host) {
        systemIs(host, view.find({Kind::system, path.first(), {}}));
      });
}

Zavro::Ptr<Trel::ReachabilityStatus> reachabilityOf(Entities& entities, const Path& path, const Value* value,
                                                    const View& view) {
  return memberEntity<Trel::ReachabilityStatus>(*entities.reachability, MemberEntity::reachability, path,
                                                value, view);
}

void applySystem(Entities& entities, const Path& path, const View& view) {
  const Value* value = view.find(path);
  if (auto host = hostOf(entities, path, value, view)) systemIs(*host, value);
}

void applyMemory(Entities& entities, const Path& path, const View& view) {
  const Value* value = view.find(path);
  auto host = hostOf(entities, path, value, view);
  if (!host) return;
  if (value == nullptr) {
    if (host->memInfo()) host->memInfoIs(nullptr);
  } else if (!host->memInfo() || host->memInfo()->amounts() != value->get<Memory>()) {
    host->memInfoIs(Zavro::makePtr<const HostResources::MemInfo>(value->get<Memory>()));
  }
}

// While there is a container, its member's entity exists.
template <auto entityOf>
void applyContainer(Entities& entities, const Path& path, const View& view) {
  entityOf(entities, path, view.find(path), view);
}

// Sets an element of a collection of the member's entity; the path's second segment is its key.
template <class Typed, auto entityOf, auto collection>
void applyElement(Entities& entities, const Path& path, const View& view) {
  const Value* value = view.find(path);
  auto entity = entityOf(entities, path, value, view);
  if (!entity) return;
  auto& elements = collection(*entity);
  using Key = typename std::decay_t<decltype(elements)>::Key;
  elementIs<Typed>(elements, keyOf<Key>(path.second()), value);
}

auto& processorsOf(HostResources::HostResources& host) { return host.processorTable(); }
auto& storageOf(HostResources::HostResources& host) { return host.storageInfoTable(); }
auto& neighboursOf(Trel::ReachabilityStatus& status) { return status.reachabilityStatus(); }

void applyUnread(Entities& entities, const Path& path, const View& view) {
  const Value* value = view.find(path);
  std::string collector = Runtime::shortened(path.second());
  constexpr int kLevel = Lumalog::kWarningLevel;
  Lumalog::Subject subject{"unread", collector};
  if (value == nullptr) {
    if (entities.unread.erase(path) == 0) return;
    traceHandle.trace(subject, kLevel, "member {}: {} is not unread any more", path.first(), collector);
    return;
  }
  const auto& unread = value->get<Unread>();
  if (!entities.unread.insert_or_assign(path, unread).second) return;
  traceHandle.trace(subject, kLevel, "member {}: {} is unread, its figures are old: it {}: {}", path.first(),
                    collector, Kor::nameOf(unread.state), Runtime::escaped(unread.error));
}

// ---- The kinds.

using Entity = MemberEntity;

constexpr auto kKinds = std::to_array<KindSpec>({
    {Kind::sysname, "sysname", Owner::cluster, Entity::none, "the system's name, in traces", decodeName,
     nameSpec, applySysname},
    {Kind::expected, "expected/<member>", Owner::cluster, Entity::none,
     "that a member belongs to the cluster; while there is none, whoever the topology names or who publishes "
     "does",
     decodeObject<Expected>, fieldSpecs<Expected>, applyExpected},
    {Kind::mountMapping, "storageMappings/mounts/<mount point>", Owner::cluster, Entity::none,
     "the row of `veldaTrelStorageTable` that a mount point has, the same for every member; a row follows "
     "its mapping at once",
     decodeObject<Mapping>, fieldSpecs<Mapping>, applyMountMapping},
    {Kind::memoryMapping, "storageMappings/memory/<number>", Owner::cluster, Entity::none,
     "the same of a kind of memory; its index says which", decodeObject<Mapping>, fieldSpecs<Mapping>,
     applyMemoryMapping},
    {Kind::interface, "interfaces/<interface>", Owner::firstMember, Entity::none,
     "the SNMP index of an interface", decodeObject<Interface>, fieldSpecs<Interface>, applyInterface},
    {Kind::link, "topology/<member>/<neighbour>", Owner::member, Entity::none, "a link, as it is configured",
     decodeObject<Link>, fieldSpecs<Link>, applyLink},
    {Kind::name, "members/<member>/name", Owner::member, Entity::name,
     "the name of a member's host, for people; no table has it", decodeName, nameSpec, applyName},
    {Kind::system, "members/<member>/system", Owner::member, Entity::hostResources,
     "a member's row of `veldaTrelHrSystemTable`", decodeObject<System>, fieldSpecs<System>, applySystem},
    {Kind::memory, "members/<member>/memory", Owner::member, Entity::hostResources,
     "the member's memory: a row of `veldaTrelStorageTable` for each mapping", decodeObject<Memory>,
     fieldSpecs<Memory>, applyMemory},
    {Kind::processors, "members/<member>/processors", Owner::member, Entity::hostResources,
     "the member's processors; an empty object says that the member is there", nullptr, nullptr,
     applyContainer<hostOf>},
    {Kind::processor, "members/<member>/processors/<index>", Owner::member, Entity::hostResources,
     "a row of `veldaTrelProcessorTable`", decodeObject<Processor>, fieldSpecs<Processor>,
     applyElement<Processor, hostOf, processorsOf>},
    {Kind::storageAreas, "members/<member>/storage", Owner::member, Entity::hostResources,
     "the same of its file systems", nullptr, nullptr, applyContainer<hostOf>},
    {Kind::storage, "members/<member>/storage/<mount point>", Owner::member, Entity::hostResources,
     "a file system: a row of `veldaTrelStorageTable`, if it has a mapping", decodeObject<Storage>,
     fieldSpecs<Storage>, applyElement<Storage, hostOf, storageOf>},
    {Kind::figures, "members/<member>/figures", Owner::member, Entity::hostResources,
     "`system`, `memory` and `processors` of the member in one, as `trelmemberd` writes them; where both "
     "forms give a path, this one counts",
     nullptr, figuresFields, nullptr},
    {Kind::filesystems, "members/<member>/filesystems", Owner::member, Entity::hostResources,
     "the same of `storage`", nullptr, filesystemsFields, nullptr},
    {Kind::neighbours, "members/<member>/reachability", Owner::member, Entity::reachability,
     "what the member says of its neighbours; an empty object says that it is there", nullptr, nullptr,
     applyContainer<reachabilityOf>},
    {Kind::reachability, "members/<member>/reachability/<neighbour>", Owner::member, Entity::reachability,
     "what a member says of a neighbour: a row of `veldaTrelReachabilityTable`", decodeObject<Reachability>,
     fieldSpecs<Reachability>, applyElement<Reachability, reachabilityOf, neighboursOf>},
    {Kind::unread, "members/<member>/unread/<collector>", Owner::member, Entity::unread,
     "a collector of the member's figures that does not work; `trelctl status` shows it, no table does",
     decodeObject<Unread>, fieldSpecs<Unread>, applyUnread},
});

constexpr bool inOrder() {
  for (size_t i = 0; i < kKinds.size(); ++i) {
    if (kKinds[i].kind != static_cast<Kind>(i)) return false;
  }
  return true;
}
static_assert(inOrder(), "a kind is looked up by its number");

}  // namespace

std::span<const KindSpec> allKinds() { return kKinds; }

const KindSpec& specOf(Kind kind) {
  auto number = static_cast<size_t>(kind);
  zavroAssert(number < kKinds.size());
  return kKinds[number];
}

std::span<const Kind> kindsIn(MemberEntity entity) {
  static const auto* byEntity = [] {
    auto* kinds = new std::array<std::vector<Kind>, 5>;
    for (const KindSpec& spec : kKinds) (*kinds)[static_cast<size_t>(spec.entity)].push_back(spec.kind);
    return kinds;
  }();
  return (*byEntity)[static_cast<size_t>(entity)];
}

nlohmann::json encode(const Value& value) {
  return value.visit([](const auto& typed) { return encoded(typed); });
}

}  // namespace Kelstore
