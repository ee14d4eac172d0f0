// The schema of the cluster's state: the kinds of values, and all that is particular to a kind. A new kind
// takes a type here, and in Schema.cpp its fields, how it is applied, and a line in the table. Whoever reads,
// stores or mirrors values goes by these.
#pragma once

#include <array>
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
#include "platform/kor/EnumNames.h"
#include "platform/lanix/IntfId.h"
#include "platform/trel/Reachability.h"

namespace Runtime {
struct JsonNotes;
}

namespace Kelstore {

class Path;
class View;
struct Entities;

// In the order in which changes are applied: storage mappings and interface indexes come before the values
// whose rows use them, and a container before its elements.
enum class Kind : uint8_t {
  sysname,
  expected,
  mountMapping,
  memoryMapping,
  interface,
  link,
  name,
  system,
  memory,
  processors,
  processor,
  storageAreas,
  storage,
  figures,      // a packed form
  filesystems,  // the same
  neighbours,
  reachability,
  unread,
};

// The value of a container: it is there, possibly without elements.
struct Present {
  bool operator==(const Present&) const = default;
};

// A member that belongs to the cluster, whether it is there or not.
struct Expected {
  std::optional<std::string> name;  // the host's
  bool operator==(const Expected&) const = default;
};

struct Interface {
  uint32_t ifIndex = 0;                                   // to be unique in the cluster
  std::optional<uint32_t> machineIfIndex = std::nullopt;  // for people: no table has it
  bool operator==(const Interface&) const = default;
};

struct Link {
  Lanix::IntfId intf;
  bool operator==(const Link&) const = default;
};

struct Processor {
  int16_t load = 0;  // percent; -1: unknown
  bool operator==(const Processor&) const = default;
};

struct Storage {
  uint32_t allocationUnits = 0;  // bytes
  uint64_t size = 0;             // in these units
  uint64_t free = 0;             // the same
  bool operator==(const Storage&) const = default;
};

struct Reachability {
  Trel::ReachabilityState::State state = Trel::ReachabilityState::unknown;
  std::optional<Lanix::IntfId> intf;
  uint64_t lastChangeNs = 0;  // since 1970 UTC
  bool operator==(const Reachability&) const = default;
};

// A collector of a member's figures that does not work: what it reads is as old as this, or was never known.
struct Unread {
  enum State : uint8_t { fails, hangs };
  friend constexpr auto namesOf(State /*state*/) {
    return std::to_array<std::string_view>({"fails", "hangs"});
  }

  State state = fails;
  double sinceUtc = 0;  // seconds since 1970 UTC
  std::string error;    // one line
  bool operator==(const Unread&) const = default;
};

using System = HostResources::HostResources::System;
using Memory = HostResources::MemInfo::Amounts;
using Mapping = HostResourcesMib::StorageTableEntry;

// std::string: a name.
using Value = OneOf<Present, Expected, Interface, Link, Processor, Storage, Reachability, Unread, System,
                    Memory, Mapping, std::string>;

// Who may publish a path.
enum class Owner : uint8_t {
  cluster,      // the operator, for all members, without a lease
  firstMember,  // the member that published it first, until it withdraws it
  member,       // the member that the path's first variable segment names
};

// Which of its member's entities holds a value. `name` and `unread` are none, but Entities::names and unread.
enum class MemberEntity : uint8_t { none, name, hostResources, reachability, unread };

// A field of a value, as documents and messages describe it.
struct FieldSpec {
  std::string name;  // empty: the value itself
  std::string type;  // what is accepted, such as "an integer from 1 to 100"
  bool optional = false;
  std::string_view meaning;
};

struct KindSpec {
  Kind kind;
  // Such as "members/<member>/system". The name of a variable segment decides what it accepts.
  std::string_view path;
  Owner owner;
  MemberEntity entity;
  std::string_view meaning;
  // The value; nothing when it cannot be used, and then `notes` has the faults. Null for a container and for
  // a packed form.
  std::optional<Value> (*decode)(const nlohmann::json& json, Runtime::JsonNotes& notes);
  std::vector<FieldSpec> (*fields)();  // null for a container
  // Makes the entities agree with the view at the path. Null for a packed form.
  void (*apply)(Entities& entities, const Path& path, const View& view);

  // Its value is Present. In a store a container has no key of its own; it is there while a key below it is.
  bool container() const { return fields == nullptr; }
  // It is no value of its own, but another way to write several values in documents and stores (Packed.h).
  // No snapshot has it.
  bool packed() const { return decode == nullptr && fields != nullptr; }
};

// In the order of kinds.
std::span<const KindSpec> allKinds();
const KindSpec& specOf(Kind kind);
// The kinds that such an entity holds. It exists while there is a value of one of them.
std::span<const Kind> kindsIn(MemberEntity entity);

// JSON that decode() accepts; an empty object for a container. Requires: texts are UTF-8, as decoded ones
// are.
nlohmann::json encode(const Value& value);

}  // namespace Kelstore
