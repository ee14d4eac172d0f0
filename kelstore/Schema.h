// The schema of the cluster's state: which kinds of values there are, and all that is particular to a kind. A
// new kind is a type below, and in Schema.cpp its fields, what becomes of it, and its line in the table;
// everything else goes by these.
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "kelstore/OneOf.h"
#include "platform/hostresources/HostResources.h"
#include "platform/hostresources/StorageEntryMappings.h"
#include "platform/lanix/IntfId.h"
#include "platform/trel/Reachability.h"

namespace Runtime {
struct JsonNotes;
}

namespace Kelstore {

class Path;
class View;
struct Entities;

// In the order in which changes are applied: what rows are computed from (storage mappings, interface
// indexes) is there before the rows' own inputs, and a container before what is in it.
enum class Kind : uint8_t {
  sysname,
  mountMapping,
  memoryMapping,
  interface,
  link,
  system,
  memory,
  processors,
  processor,
  storageAreas,
  storage,
  neighbours,
  reachability,
};

// A container is there, if only as an empty object.
struct Present {
  bool operator==(const Present&) const = default;
};

struct Interface {
  uint32_t ifIndex = 0;
  bool operator==(const Interface&) const = default;
};

struct Link {
  Lanix::IntfId intf;
  bool operator==(const Link&) const = default;
};

struct Processor {
  int16_t load = 0;
  bool operator==(const Processor&) const = default;
};

struct Storage {
  uint32_t allocationUnits = 0;
  uint64_t size = 0;
  uint64_t free = 0;
  bool operator==(const Storage&) const = default;
};

struct Reachability {
  Trel::ReachabilityState::State state = Trel::ReachabilityState::unknown;
  std::optional<Lanix::IntfId> intf;
  uint64_t lastChangeNs = 0;
  bool operator==(const Reachability&) const = default;
};

using System = HostResources::HostResources::System;
using Memory = HostResources::MemInfo::Amounts;
using Mapping = HostResourcesMib::StorageTableEntry;

// The string is the system's name.
using Value =
    OneOf<Present, Interface, Link, Processor, Storage, Reachability, System, Memory, Mapping, std::string>;

// Who may say something at a path.
enum class Owner : uint8_t {
  cluster,      // the operator, for all members; it goes with no lease
  firstMember,  // the member that was the first to say something, until it takes that back
  member,       // the member that the path's first variable segment names
};

// Which of a member's entities a value goes into.
enum class MemberEntity : uint8_t { none, hostResources, reachability };

// A member of the JSON object that a value is.
struct FieldSpec {
  std::string name;
  std::string type;  // what is expected of it
  bool optional = false;
  std::string_view meaning;
};

struct KindSpec {
  Kind kind;
  // Segments with "/" between them; a variable one is <named>, and what it takes goes by its name.
  std::string_view path;
  Owner owner;
  MemberEntity entity;
  std::string_view meaning;
  // Null: a container. Its being there is a value, Present; in a store it has no key of its own, but is there
  // while a key below it is.
  std::optional<Value> (*decode)(const nlohmann::json& json, Runtime::JsonNotes& notes);
  std::vector<FieldSpec> (*fields)();
  // Brings what comes from the path up to date with the view.
  void (*apply)(Entities& entities, const Path& path, const View& view);

  bool container() const { return decode == nullptr; }
};

// In the order of kinds.
std::span<const KindSpec> allKinds();
const KindSpec& specOf(Kind kind);
// The kinds whose values go into such an entity, and by whose values it is there.
std::span<const Kind> kindsIn(MemberEntity entity);

// As decode() takes it; a container's is an empty object. Texts go as they are: they are to be UTF-8, as all
// that was decoded is.
nlohmann::json encode(const Value& value);

}  // namespace Kelstore
