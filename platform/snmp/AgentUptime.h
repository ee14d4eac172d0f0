// When something happened, by the agent's uptime. Used by conversions, on the agent's thread.
#pragma once

#include <functional>

#include "platform/zavro/Clock.h"
#include "platform/zavro/Duration.h"

namespace Snmp {

// While one lives, the conversions go by it: one at a time.
class AgentUptime {
 public:
  // `now` tells the agent's uptime, by a clock that does not step, as sysUpTime does.
  AgentUptime(const Zavro::Clock& clock, std::function<Zavro::Duration()> now);
  ~AgentUptime();
  AgentUptime(const AgentUptime&) = delete;
  AgentUptime& operator=(const AgentUptime&) = delete;

  // Null when there is none.
  static AgentUptime* instance();

  // The uptime at a UTC time: at least 0, and at most what it is now, though the clocks of members disagree.
  // An answer stays while the time of day and the uptime go on together within a second. When either of them
  // is set, answers go by what both say then.
  Zavro::Duration at(Zavro::Duration utc);

 private:
  const Zavro::Clock& clock_;
  std::function<Zavro::Duration()> now_;
  double startUtc_;  // when the uptime was 0
};

}  // namespace Snmp
