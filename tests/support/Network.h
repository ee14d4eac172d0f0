// Ports for the servers that tests start.
#pragma once

#include <cstdint>

namespace Support {

// A port of 127.0.0.1 that no UDP socket is bound to at the moment; never the same one twice in a process.
uint16_t freeUdpPort();
// The same for TCP.
uint16_t freeTcpPort();

}  // namespace Support
