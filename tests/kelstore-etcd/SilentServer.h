// A server that clients can connect to, and that never says a word. For one thread.
#pragma once

#include <arpa/inet.h>
#include <fmt/format.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace Kelstore::Etcd {

class SilentServer {
 public:
  SilentServer() : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
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
  ~SilentServer() {
    for (int connection : connections_) close(connection);
    close(fd_);
  }
  SilentServer(const SilentServer&) = delete;
  SilentServer& operator=(const SilentServer&) = delete;
  std::string endpoint() const { return fmt::format("127.0.0.1:{}", port_); }

  // How many were made to it so far; it keeps them open.
  size_t connections() {
    for (int one; (one = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) connections_.push_back(one);
    return connections_.size();
  }

 private:
  int fd_;
  uint16_t port_ = 0;
  std::vector<int> connections_;
};

}  // namespace Kelstore::Etcd
