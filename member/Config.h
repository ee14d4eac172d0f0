// What can be set of a member's publisher (examples/trelmemberd.json).
#pragma once

#include <absl/status/status.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "kelstore/etcd/Access.h"
#include "kelstore/etcd/AccessOptions.h"
#include "member/Deadbands.h"
#include "member/MachineFigures.h"
#include "member/NeighbourReachability.h"
#include "runtime/Settings.h"

namespace Member {

// How the neighbour is asked for echoes, and how answers and losses count.
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
  std::string address;    // the neighbour's on that device: IPv4 or IPv6, without a scope
  ProbeSettings probe;
  // Published as the interface's index; 0: the device's own index. Unique in the cluster, since it is the
  // index of the table of backplane interfaces. Where none is configured, indexOfPort() has it.
  uint32_t ifIndex = 0;

  bool operator==(const NeighbourConfig&) const = default;
  // Whether it is the same neighbour over the same interface; probe and ifIndex may differ.
  bool isSameLink(const NeighbourConfig& other) const {
    return member == other.member && interface == other.interface && device == other.device &&
           address == other.address;
  }
};

// The index of an interface in the whole cluster: member * base + port, the port being the number at the end
// of the interface's name. 0: the base is 0, or the name has no port from 1 to base - 1.
uint32_t indexOfPort(uint8_t member, uint32_t base, const std::string& interface);

struct Config {
  static constexpr uint32_t kMaxIfIndex = 2'147'483'647;  // InterfaceIndex of IF-MIB (RFC 2863)
  static constexpr uint32_t kMaxIfIndexBase = 8'000'000;  // so that each index is one

  uint8_t member = 0;
  std::string store;  // "etcd:HOST:PORT[,...]/PREFIX"
  Kelstore::Etcd::Access access;
  uint32_t ttlSeconds = 15;
  uint32_t holdSeconds = 300;    // how long a store with another history does not count
  uint32_t intervalSeconds = 1;  // between two transactions, at least
  // Less than two thirds of the ttl, so that a write of figures is also the proof that writes work.
  uint32_t figuresIntervalSeconds = 9;
  Deadbands deadbands;
  std::string indexFile;        // keeps the indexes of suggested mappings; empty: none
  uint32_t ifIndexBase = 1000;  // of indexOfPort(); 0: interfaces have their devices' own indexes
  std::vector<NeighbourConfig> neighbours;
};

// An error, with what was found and expected, if the text names no store.
using CheckStore = std::function<absl::Status(const std::string&)>;

inline constexpr Kelstore::Etcd::AccessKeys kAccessKeys = {"access/ca", "access/cert", "access/key",
                                                           "access/credentials"};

// Adds the table of what can be set. Reading it sets `config`, which was made anew and outlives it.
void addConfig(Runtime::Settings& settings, Config& config, const CheckStore& checkStore);

}  // namespace Member
