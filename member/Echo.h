// Asking a neighbour for an echo.
#pragma once

#include <chrono>
#include <string>

#include "member/LocalMachine.h"

namespace Member {

struct EchoTarget {
  std::string address;  // without a scope
  std::string device;   // the request is sent on this device only
  std::chrono::milliseconds timeout{0};
};

class EchoProbe {
 public:
  virtual ~EchoProbe() = default;
  // Asks, and waits for the answer up to the target's timeout; whether there was one. An error: the request
  // could not be sent. On any thread, for several targets at the same time.
  virtual absl::StatusOr<bool> ask(const EchoTarget& target) = 0;
};

// ICMP and ICMPv6, by liboping. Needs CAP_NET_RAW.
class PingProbe final : public EchoProbe {
 public:
  absl::StatusOr<bool> ask(const EchoTarget& target) override;
};

}  // namespace Member
