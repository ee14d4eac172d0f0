#include "snmp-modules/ReachabilityStateToAsnUnsigned.h"

#include "platform/snmp/AsnConversions.h"

int ReachabilityStateToAsnUnsigned(const Trel::ReachabilityState::State& state, unsigned char* buffer,
                                   int capacity) {
  auto ordinal = static_cast<uint32_t>(state);
  uint32_t number = ordinal < Trel::ReachabilityState::kStates ? ordinal + 1 : 0;
  return Snmp::U32ToAsnUnsignedF()(number, buffer, capacity);
}
