// From UTC time to the agent's uptime. The conversions use it, on the agent's thread.
#pragma once

#include <functional>

#include "platform/zavro/Clock.h"
#include "platform/zavro/Duration.h"

namespace Snmp {

// Requires: no other instance exists.
class AgentUptime {
 public:
  // now returns the agent's uptime (sysUpTime), by a clock that does not step. The clock must outlive this
  // object.
  AgentUptime(const Zavro::Clock& clock, std::function<Zavro::Duration()> now);
  ~AgentUptime();
  AgentUptime(const AgentUptime&) = delete;
  AgentUptime& operator=(const AgentUptime&) = delete;

  // The one instance, or null.
  static AgentUptime* instance();

  // The agent's uptime at a UTC time, limited to the range from 0 to the current uptime, since the clocks of
  // members may disagree. Equal times give equal results until the time of day or the uptime is set: when the
  // two have moved apart by more than a second, results follow their new difference.
  Zavro::Duration at(Zavro::Duration utc);

 private:
  const Zavro::Clock& clock_;
  std::function<Zavro::Duration()> now_;
  double startUtc_;  // UTC time at which the uptime was 0
};

}  // namespace Snmp
