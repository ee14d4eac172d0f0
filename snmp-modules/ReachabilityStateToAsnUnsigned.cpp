#include "snmp-modules/ReachabilityStateToAsnUnsigned.h"

#include "platform/snmp/AsnConversions.h"

int ReachabilityStateToAsnUnsigned(const Trel::ReachabilityState::State& state, unsigned char* buffer,
                                   int capacity) {
  return Snmp::EnumToAsnUnsignedF<Trel::ReachabilityState::State>()(state, buffer, capacity);
}
