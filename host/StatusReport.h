// The answer to the control request "status".
#pragma once

#include <cstdint>
#include <memory>
#include <nlohmann/json_fwd.hpp>

#include "host/Cluster.h"
#include "host/ControlServer.h"
#include "host/SnmpAgent.h"
#include "runtime/Log.h"

namespace Host {

struct StatusInputs {
  uint8_t member;
  uint64_t uptimeNs;
  uint64_t nowUtcNs;
  const SnmpAgent& snmp;
  const Cluster& cluster;
  const Vem::TaskScheduler& scheduler;
  Runtime::Log::State log;
};

// Whether the agent is reachable and its tables show all that the sources say.
bool serving(const SnmpAgent& snmp, const Cluster& cluster);

// As answers show it, "2026-01-31T23:59:59.123Z"; null for 0.
nlohmann::ordered_json utcTime(uint64_t utcNs);

std::unique_ptr<Reply> statusReport(const StatusInputs& inputs);

}  // namespace Host
