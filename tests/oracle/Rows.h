// What the five tables have to hold: from a cluster's state, in plain values, to rows. Knows neither the
// library nor how a state comes about, so that it can disagree with both.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Oracle {

using Pair = std::pair<uint32_t, uint32_t>;

struct Report {
  std::string interface = {};  // that leads to the neighbour; empty: none
  uint32_t state = 0;          // unknown, initializing, reachable, degraded, unreachable, disabled
  uint64_t lastChangeNs = 0;   // UTC
};
struct System {
  double uptime = 0;          // seconds
  double currentTimeUtc = 0;  // seconds since 1970
  uint32_t users = 0;
  uint32_t processes = 0;
  uint32_t memorySize = 0;  // KiB
};
struct Storage {
  uint32_t allocationUnits = 0;  // bytes
  uint64_t size = 0;             // in units
  uint64_t free = 0;
};
// In KiB; what is not known is 0.
struct Memory {
  uint32_t total = 0;
  uint32_t free = 0;
  uint32_t available = 0;
  uint32_t nonBuffer = 0;
  uint32_t nonCache = 0;
};
struct Host {
  System system = {};
  std::map<uint32_t, int32_t> loads = {};       // by processor
  std::map<std::string, Storage> storage = {};  // by mount point
  std::optional<Memory> memory = {};
};
struct Mapping {
  uint32_t index = 0;
  std::string type = {};  // "1.3.6"
  std::string description = {};
};

// Of what is keyed by directory, two keys may spell one member.
struct State {
  std::map<Pair, std::string> links = {};        // member and neighbour, to the interface between them
  std::map<std::string, uint32_t> indexes = {};  // of interfaces
  std::multimap<Pair, Report> reports = {};      // by who reports, of whom
  std::multimap<uint32_t, Host> hosts = {};
  std::map<std::string, Mapping> mounts = {};
  std::vector<Mapping> memoryKinds = {};
};

struct Column {
  enum Type : uint8_t {
    integer,
    gauge,
    ticks,
    instant,  // nanoseconds UTC, served as the agent's uptime then
    octets,
    oid,
  };
  Type type = integer;
  int64_t number = 0;
  std::string text;  // octets, or "1.3.6"
  bool operator==(const Column&) const = default;
};
// Those that are served, in their order.
using Columns = std::vector<Column>;

// A key of one number has 0 as its second. What claims one key stands under it in the order of the state;
// which of them is shown depends on the order of events, which a state does not tell.
using Rows = std::multimap<Pair, Columns>;
Rows interfaceRows(const State& state);
Rows reachabilityRows(const State& state);
Rows systemRows(const State& state);
Rows processorRows(const State& state);
Rows storageRows(const State& state);

Columns linkColumns(const Pair& members);
Columns reportColumns(uint32_t ifIndex, const Report& report);
Columns systemColumns(const System& system);
Columns processorColumns(int32_t load);
Columns storageColumns(const Mapping& mapping, uint32_t allocationUnits, uint32_t size, uint32_t used);

// "(1,3)=0 5 12 (3,1)=..."
std::string textOf(const Rows& rows);

// Every instance, by module, 1, table, 1, column and index, in walk order. Requires: no two rows claim a key.
std::map<std::vector<uint32_t>, Column> walkOf(const State& state);

// The member that a directory key spells: decimal digits, 0 to 255; 0 for any other text.
uint32_t memberOf(std::string_view directoryKey);
bool isBackplane(std::string_view interface);

}  // namespace Oracle
