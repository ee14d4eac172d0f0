// The numbers of the reachability states in VELDA-TREL-MIB.
#pragma once

#include "platform/trel/Reachability.h"

// Writes the state's number as a 32-bit integer into a buffer of `capacity` bytes: 1 to 6 in the order of the
// states, 0 for a value that names no state. Returns the number of bytes written, or a negative number when
// the capacity does not allow it.
int ReachabilityStateToAsnUnsigned(const Trel::ReachabilityState::State& state, unsigned char* buffer,
                                   int capacity);
