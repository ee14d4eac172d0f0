// How VELDA-TREL-MIB numbers the reachability states.
#pragma once

#include "platform/trel/Reachability.h"

// Writes the state's number as a 32-bit integer into a buffer of `capacity` bytes: 1 to 6 in the order of the
// states, 0 for a value that names no state. Returns the number of bytes written, or a negative number when
// the capacity does not allow it.
int ReachabilityStateToAsnUnsigned(const Trel::ReachabilityState::State& state, unsigned char* buffer,
                                   int capacity);
