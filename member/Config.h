// The configuration of a member's publisher: one JSON file (examples/trelmemberd.json).
#pragma once

#include <absl/status/status.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "kelstore/etcd/Access.h"
#include "member/MachineFigures.h"
#include "member/NeighbourReachability.h"

namespace Member {

// How the neighbour is asked for echoes, and how they count.
struct ProbeSettings {
  uint32_t intervalMs = 500;
  uint32_t timeoutMs = 400;  // at most the interval
  NeighbourReachability::Settings counting;
  bool operator==(const ProbeSettings&) const = default;
};

struct NeighbourConfig {
  uint8_t member = 0;
  std::string interface;  // its name in the state, such as "Backplane1/2"
  std::string device;     // its name on this machine
  std::string address;  // of the neighbour on it: IPv4 or IPv6, without a scope, as it is asked on the device
  ProbeSettings probe;
  // Published instead of the device's own index; 0: that. The table of backplane interfaces goes by this
  // number alone, so that it must be another one for each interface of the whole cluster.
  uint32_t ifIndex = 0;

  bool operator==(const NeighbourConfig&) const = default;
  // Whether it is the same neighbour over the same interface, however it is asked.
  bool isSameLink(const NeighbourConfig& other) const {
    return member == other.member && interface == other.interface && device == other.device &&
           address == other.address;
  }
};

struct Config {
  uint8_t member = 0;
  std::string store;  // "etcd:HOST:PORT[,...]/PREFIX"
  Kelstore::Etcd::Access access;
  uint32_t ttlSeconds = 15;
  uint32_t intervalSeconds = 1;  // at most so often are changes written
  uint32_t figuresIntervalSeconds = MachineFigures::kDefaultIntervalSeconds;
  std::string indexFile;  // of mappings that are suggested; empty: none
  std::vector<NeighbourConfig> neighbours;
};

struct ParsedConfig {
  Config config;                      // what could be read; to be used only when there are no errors
  std::vector<std::string> errors;    // "PATH: neighbours[1]/address: found ..., expected ..."
  std::vector<std::string> warnings;  // the same, of members that are not known
};

// The names of what differs and counts for a process from its start to its end.
std::vector<std::string> fixedDifferences(const Config& before, const Config& now);

// An error, with what was found and expected, when the text names no store.
using CheckStore = std::function<absl::Status(const std::string&)>;

// `path` is what messages begin with.
ParsedConfig parseConfig(std::string_view text, const std::string& path, const CheckStore& checkStore);
// A file that cannot be read is an error too.
ParsedConfig readConfig(const std::string& path, const CheckStore& checkStore);

}  // namespace Member
