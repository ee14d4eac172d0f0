// Ports for the servers that tests start.
#pragma once

#include <cstdint>
#include <string>

namespace Support {

// A port of 127.0.0.1 that no UDP socket is bound to at the moment; never the same one twice in a process.
uint16_t freeUdpPort();
// The same for TCP.
uint16_t freeTcpPort();

// Of an address or endpoint that ends in ":port".
uint16_t portOf(const std::string& endpoint);

}  // namespace Support
