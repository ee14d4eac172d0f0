// One echo request, and its answer: ICMP or ICMPv6 over a raw socket. Needs CAP_NET_RAW. On one thread.
#pragma once

#include <absl/status/statusor.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <utility>

#include "member/Echo.h"
#include "runtime/File.h"

namespace Member {

class IcmpSocket final : public EchoSocket {
 public:
  // Sends a request to the target. It crosses no router, so that only the next machine on the device's link
  // answers. An error is this machine's own: no such device, no route, no right. That nobody has the address
  // is none.
  static absl::StatusOr<IcmpSocket> send(const EchoTarget& target);

  void wait(std::chrono::milliseconds atMost) override;
  // Counts what the target's address sent, over the target's device, to this very request.
  bool answered() override;

 private:
  using Mark = std::array<char, 16>;  // what the request carries, and its answer brings back

  IcmpSocket(Runtime::Descriptor socket, bool ipv6, const Mark& mark)
      : socket_(std::move(socket)), ipv6_(ipv6), mark_(mark) {}
  bool isAnswer(const char* packet, size_t bytes) const;

  Runtime::Descriptor socket_;
  bool ipv6_;
  Mark mark_;
};

}  // namespace Member
