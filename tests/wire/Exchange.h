// Datagrams to one port of 127.0.0.1, and back.
#pragma once

#include <netinet/in.h>

#include <optional>

#include "tests/support/WaitUntil.h"
#include "tests/wire/Message.h"

namespace Wire {

class Exchange {
 public:
  explicit Exchange(uint16_t port);
  ~Exchange();
  Exchange(const Exchange&) = delete;
  Exchange& operator=(const Exchange&) = delete;

  // Throws std::runtime_error when it cannot be sent; that nobody listens is no reason.
  void send(std::string_view bytes);
  // Nothing when none came by the deadline.
  std::optional<Bytes> receive(Support::Millis deadline);
  // Sends a request until an answer to it comes, a few times; drops the answers to what was sent before.
  std::optional<Bytes> ask(const Message& request);

 private:
  int fd_;
};

}  // namespace Wire
