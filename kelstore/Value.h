// The typed values that stand at the paths of the state model. Plain values: compared, copied and handed from
// thread to thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>

#include "platform/hostresources/HostResources.h"
#include "platform/hostresources/StorageEntryMappings.h"
#include "platform/lanix/IntfId.h"
#include "platform/trel/Reachability.h"

namespace Kelstore {

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
  uint32_t allocationUnits = 0;  // bytes
  uint64_t size = 0;             // in units
  uint64_t free = 0;             // in units
  bool operator==(const Storage&) const = default;
};

struct Reachability {
  Trel::ReachabilityState::State state = Trel::ReachabilityState::unknown;
  std::optional<Lanix::IntfId> intf;
  uint64_t lastChangeNs = 0;  // since 1970-01-01 UTC
  bool operator==(const Reachability&) const = default;
};

using System = HostResources::HostResources::System;
using Memory = HostResources::MemInfo::Amounts;
using Mapping = HostResourcesMib::StorageTableEntry;

// The string is the system's name.
using Value = std::variant<std::string, Present, Interface, Link, System, Memory, Processor, Storage,
                           Reachability, Mapping>;

}  // namespace Kelstore
