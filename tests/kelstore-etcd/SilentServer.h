// A server that clients can connect to, and that never says a word.
#pragma once

#include <arpa/inet.h>
#include <fmt/format.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

namespace Kelstore::Etcd {

class SilentServer {
 public:
  SilentServer() : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    bool listens =
        bind(fd_, generic, length) == 0 && listen(fd_, 16) == 0 && getsockname(fd_, generic, &length) == 0;
    if (!listens) throw std::runtime_error("cannot listen");
    port_ = ntohs(address.sin_port);
  }
  ~SilentServer() { close(fd_); }
  SilentServer(const SilentServer&) = delete;
  SilentServer& operator=(const SilentServer&) = delete;
  std::string endpoint() const { return fmt::format("127.0.0.1:{}", port_); }

 private:
  int fd_;
  uint16_t port_ = 0;
};

}  // namespace Kelstore::Etcd
