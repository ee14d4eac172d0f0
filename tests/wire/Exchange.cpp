#include "tests/wire/Exchange.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Wire {

using namespace std::chrono_literals;

Exchange::Exchange(uint16_t port) : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  // Answers are larger than what asks for them.
  constexpr int kBufferBytes = 4 << 20;
  setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &kBufferBytes, sizeof kBufferBytes);
  if (connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return;
  close(fd_);
  throw std::runtime_error(std::string("no UDP socket: ") + std::strerror(errno));
}

Exchange::~Exchange() { close(fd_); }

void Exchange::send(std::string_view bytes) {
  // A refusal that is told now is about an earlier datagram.
  while (::send(fd_, bytes.data(), bytes.size(), 0) < 0) {
    if (errno == ECONNREFUSED || errno == EINTR) continue;
    throw std::runtime_error(std::string("cannot send: ") + std::strerror(errno));
  }
}

std::optional<Bytes> Exchange::receive(Support::Millis deadline) {
  auto end = std::chrono::steady_clock::now() + deadline;
  while (true) {
    auto left = std::chrono::duration_cast<Support::Millis>(end - std::chrono::steady_clock::now());
    pollfd readable{fd_, POLLIN, 0};
    if (poll(&readable, 1, static_cast<int>(std::max(left, 0ms).count())) == 0) return std::nullopt;
    Bytes bytes(65536, '\0');
    ssize_t count = recv(fd_, bytes.data(), bytes.size(), 0);
    if (count < 0) {
      if (left <= 0ms) return std::nullopt;
      continue;
    }
    bytes.resize(static_cast<size_t>(count));
    return bytes;
  }
}

std::optional<Bytes> Exchange::ask(const Message& request) {
  constexpr int kAttempts = 3;
  constexpr Support::Millis kPatience = 3s;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    send(encode(request));
    auto end = std::chrono::steady_clock::now() + kPatience;
    while (auto bytes =
               receive(std::chrono::duration_cast<Support::Millis>(end - std::chrono::steady_clock::now()))) {
      try {
        if (requestIdOf(*bytes) == request.pdu.requestId) return bytes;
      } catch (const Malformed&) {
        // Not an answer to this.
      }
    }
  }
  return std::nullopt;
}

}  // namespace Wire
