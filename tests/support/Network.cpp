#include "tests/support/Network.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <set>
#include <stdexcept>

namespace Support {
namespace {

uint16_t portOfKernelsChoice(int type) {
  int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  bool bound = fd >= 0 && bind(fd, generic, length) == 0 && getsockname(fd, generic, &length) == 0;
  if (fd >= 0) close(fd);
  if (!bound) throw std::runtime_error("no port can be bound");
  return ntohs(address.sin_port);
}

uint16_t freePort(int type) {
  static std::set<uint16_t> given;
  uint16_t port = 0;
  do {
    port = portOfKernelsChoice(type);
  } while (!given.insert(port).second);
  return port;
}

}  // namespace

uint16_t freeUdpPort() { return freePort(SOCK_DGRAM); }

uint16_t freeTcpPort() { return freePort(SOCK_STREAM); }

uint16_t portOf(const std::string& endpoint) {
  return static_cast<uint16_t>(std::stoi(endpoint.substr(endpoint.rfind(':') + 1)));
}

}  // namespace Support
