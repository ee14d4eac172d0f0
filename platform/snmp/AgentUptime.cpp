#include "platform/snmp/AgentUptime.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "platform/zavro/Assert.h"

namespace Snmp {
namespace {

constexpr double kMostDisagreement = 1;  // seconds

AgentUptime* theOne = nullptr;

double startNow(const Zavro::Clock& clock, double uptime) {
  return static_cast<double>(clock.utcNs()) / 1e9 - uptime;
}

}  // namespace

AgentUptime::AgentUptime(const Zavro::Clock& clock, std::function<Zavro::Duration()> now)
    : clock_(clock), now_(std::move(now)), startUtc_(startNow(clock, now_().seconds())) {
  zavroAssert(theOne == nullptr);
  theOne = this;
}

AgentUptime::~AgentUptime() { theOne = nullptr; }

AgentUptime* AgentUptime::instance() { return theOne; }

Zavro::Duration AgentUptime::at(Zavro::Duration utc) {
  double now = now_().seconds();
  double start = startNow(clock_, now);
  if (std::fabs(start - startUtc_) > kMostDisagreement) startUtc_ = start;
  return Zavro::Duration(std::clamp(utc.seconds() - startUtc_, 0.0, now));
}

}  // namespace Snmp
