// Asking a neighbour for an echo.
#pragma once

#include <chrono>
#include <string>

#include "member/LocalMachine.h"

namespace Member {

struct EchoTarget {
  std::string address;  // without a scope
  std::string device;   // on which it is asked, and no other
  std::chrono::milliseconds timeout{0};
};

class EchoProbe {
 public:
  virtual ~EchoProbe() = default;
  // Waits for the answer, for as long as the target's timeout: whether there was one. Fails when the request
  // cannot be sent. On any thread; several targets at the same time.
  virtual absl::StatusOr<bool> ask(const EchoTarget& target) = 0;
};

// ICMP and ICMPv6, by liboping. Needs CAP_NET_RAW.
class PingProbe final : public EchoProbe {
 public:
  absl::StatusOr<bool> ask(const EchoTarget& target) override;
};

}  // namespace Member
