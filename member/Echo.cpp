#include "member/Echo.h"

#include <fmt/format.h>

#include "member/IcmpSocket.h"

namespace Member {

// The clock is read before the socket, so that nothing that came in time is overlooked.
absl::StatusOr<bool> awaitAnswer(EchoSocket& socket, const EchoTarget& target, const Zavro::Clock& clock) {
  using std::chrono::ceil, std::chrono::milliseconds, std::chrono::nanoseconds;
  const uint64_t startNs = clock.monotonicNs();
  const nanoseconds timeout = target.timeout;
  for (nanoseconds passed{0};;) {
    socket.wait(ceil<milliseconds>(timeout - passed));
    passed = nanoseconds(clock.monotonicNs() - startNs);
    if (socket.answered()) return true;
    if (passed >= 2 * timeout) {
      return absl::DeadlineExceededError(fmt::format(
          "echo to {} on {}: looked for the answer after {} ms, expected {} ms: this machine was "
          "stopped or is overloaded",
          target.address, target.device, ceil<milliseconds>(passed).count(), target.timeout.count()));
    }
    if (passed >= timeout) return false;
  }
}

// Each request has a socket of its own, since a socket is bound to the device that has the name now.
absl::StatusOr<bool> PingProbe::ask(const EchoTarget& target) {
  absl::StatusOr<IcmpSocket> socket = IcmpSocket::send(target);
  if (!socket.ok()) return socket.status();
  return awaitAnswer(*socket, target, Zavro::SystemClock());
}

}  // namespace Member
