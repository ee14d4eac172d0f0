// Asking a neighbour for an echo.
#pragma once

#include <absl/status/statusor.h>

#include <chrono>
#include <string>

#include "platform/zavro/Clock.h"

namespace Member {

struct EchoTarget {
  std::string address;  // without a scope
  std::string device;   // the request is sent on this device only
  std::chrono::milliseconds timeout{0};
};

class EchoProbe {
 public:
  virtual ~EchoProbe() = default;
  // Asks, and waits for the answer up to the target's timeout; whether there was one. An error: it cannot be
  // told, for a reason that is this machine's own. On any thread, for several targets at the same time.
  virtual absl::StatusOr<bool> ask(const EchoTarget& target) = 0;
};

// ICMP and ICMPv6. Needs CAP_NET_RAW.
class PingProbe final : public EchoProbe {
 public:
  absl::StatusOr<bool> ask(const EchoTarget& target) override;
};

// A request that was sent.
class EchoSocket {
 public:
  virtual ~EchoSocket() = default;
  // Waits until something arrives, that long at most.
  virtual void wait(std::chrono::milliseconds atMost) = 0;
  // Whether the answer is among all that has arrived. Does not wait.
  virtual bool answered() = 0;
};

// Waits for the answer to a request that was just sent, as EchoProbe::ask() does. An answer that is there
// when this thread looks counts, however late it looks. When it looks later than after twice the timeout, as
// on a machine that was stopped, and there is none, that is an error and no loss.
absl::StatusOr<bool> awaitAnswer(EchoSocket& socket, const EchoTarget& target, const Zavro::Clock& clock);

}  // namespace Member
