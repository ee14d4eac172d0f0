#include "member/IcmpSocket.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <net/if.h>
#include <netinet/icmp6.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <netinet/ip_icmp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/random.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <optional>

#include "runtime/Errors.h"

namespace Member {
namespace {

constexpr size_t kHeaderBytes = 8;
constexpr int kMostErrors = 8;
constexpr size_t kPacketBytes = 1500;  // the rest of a longer one is no echo's that is awaited here

struct Request {
  uint8_t type;
  uint8_t code = 0;
  uint16_t checksum = 0;
  uint16_t id = 0;
  uint16_t sequence = 0;
  std::array<char, 16> mark;
};
static_assert(sizeof(Request) == kHeaderBytes + sizeof(Request::mark));

// Of ICMP; that of ICMPv6 is the kernel's business.
uint16_t checksumOf(const Request& request) {
  std::array<uint16_t, sizeof(Request) / 2> words;
  std::memcpy(words.data(), &request, sizeof request);
  uint32_t sum = 0;
  for (uint16_t word : words) sum += word;
  while (sum >> 16 != 0) sum = (sum & 0xffff) + (sum >> 16);
  return static_cast<uint16_t>(~sum);
}

struct Address {
  sockaddr_storage storage{};
  socklen_t bytes = 0;
  bool ipv6() const { return storage.ss_family == AF_INET6; }
};

std::optional<Address> addressOf(const EchoTarget& target) {
  Address address;
  auto* four = reinterpret_cast<sockaddr_in*>(&address.storage);
  auto* six = reinterpret_cast<sockaddr_in6*>(&address.storage);
  if (inet_pton(AF_INET, target.address.c_str(), &four->sin_addr) == 1) {
    four->sin_family = AF_INET;
    address.bytes = sizeof *four;
    return address;
  }
  if (inet_pton(AF_INET6, target.address.c_str(), &six->sin6_addr) != 1) return std::nullopt;
  six->sin6_family = AF_INET6;
  six->sin6_scope_id = if_nametoindex(target.device.c_str());
  address.bytes = sizeof *six;
  return address;
}

// 0, or the error. A connected socket gets packets of that address only.
int connectTo(const EchoTarget& target, const Address& address, int fd) {
  constexpr int kHops = 1;
  const std::string& device = target.device;
  bool done = setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, device.c_str(),
                         static_cast<socklen_t>(device.size())) == 0 &&
              (address.ipv6() ? setsockopt(fd, IPPROTO_IPV6, IPV6_UNICAST_HOPS, &kHops, sizeof kHops)
                              : setsockopt(fd, IPPROTO_IP, IP_TTL, &kHops, sizeof kHops)) == 0 &&
              connect(fd, reinterpret_cast<const sockaddr*>(&address.storage), address.bytes) == 0;
  return done ? 0 : errno;
}

// Whether the socket, connected to the address, has it for its own. The machine answers itself, whatever
// becomes of the link.
bool asksItself(int fd, const Address& address) {
  Address own;
  own.bytes = sizeof own.storage;
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&own.storage), &own.bytes) != 0) return false;
  if (address.ipv6()) {
    return IN6_ARE_ADDR_EQUAL(&reinterpret_cast<const sockaddr_in6&>(own.storage).sin6_addr,
                              &reinterpret_cast<const sockaddr_in6&>(address.storage).sin6_addr);
  }
  return reinterpret_cast<const sockaddr_in&>(own.storage).sin_addr.s_addr ==
         reinterpret_cast<const sockaddr_in&>(address.storage).sin_addr.s_addr;
}

// Whoever has a loopback device for a link wants just that.
bool isLoopback(const std::string& device, int fd) {
  ifreq request{};
  device.copy(request.ifr_name, IFNAMSIZ - 1);
  return ioctl(fd, SIOCGIFFLAGS, &request) == 0 && (request.ifr_flags & IFF_LOOPBACK) != 0;
}

absl::Status failure(const EchoTarget& target, int error) {
  const char* hint = error == EPERM ? " (it takes CAP_NET_RAW)" : "";
  absl::Status status = Runtime::systemError(error);
  return {status.code(), fmt::format("echo to {} on {}: {}{}", target.address, target.device,
                                     Runtime::textOf(status), hint)};
}

}  // namespace

absl::StatusOr<IcmpSocket> IcmpSocket::send(const EchoTarget& target) {
  std::optional<Address> address = addressOf(target);
  if (!address) return failure(target, EINVAL);
  Runtime::Descriptor socket(::socket(address->ipv6() ? AF_INET6 : AF_INET,
                                      SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK,
                                      address->ipv6() ? static_cast<int>(IPPROTO_ICMPV6) : IPPROTO_ICMP));
  if (!socket.opened()) return failure(target, errno);
  if (int error = connectTo(target, *address, socket.get()); error != 0) return failure(target, error);
  if (asksItself(socket.get(), *address) && !isLoopback(target.device, socket.get())) {
    return absl::FailedPreconditionError(
        fmt::format("echo to {} on {}: the address is this machine's own, not the neighbour's",
                    target.address, target.device));
  }
  Request request{
      address->ipv6() ? static_cast<uint8_t>(ICMP6_ECHO_REQUEST) : uint8_t{ICMP_ECHO}, 0, 0, 0, 0, {}};
  // Kept apart from the answers to all other requests of this machine, also of earlier processes.
  if (getrandom(request.mark.data(), request.mark.size(), 0) < 0) return failure(target, errno);
  std::memcpy(&request.id, request.mark.data(), sizeof request.id);
  if (!address->ipv6()) request.checksum = checksumOf(request);
  if (::send(socket.get(), &request, sizeof request, 0) < 0) return failure(target, errno);
  return IcmpSocket(std::move(socket), address->ipv6(), request.mark);
}

void IcmpSocket::wait(std::chrono::milliseconds atMost) {
  pollfd one{socket_.get(), POLLIN, 0};
  poll(&one, 1, static_cast<int>(atMost.count()));
}

bool IcmpSocket::answered() {
  std::array<char, kPacketBytes> packet;
  // An error is one that was reported of the request, which says nothing of what else has arrived.
  for (int errors = 0; errors < kMostErrors;) {
    ssize_t bytes = recv(socket_.get(), packet.data(), packet.size(), 0);
    if (bytes > 0 && isAnswer(packet.data(), static_cast<size_t>(bytes))) return true;
    if (bytes >= 0) continue;
    if (errno == EAGAIN) return false;
    ++errors;
  }
  return false;
}

// IPv4 packets come with their IP header.
bool IcmpSocket::isAnswer(const char* packet, size_t bytes) const {
  size_t skip = 0;
  if (!ipv6_) {
    if (bytes < sizeof(iphdr)) return false;
    skip = size_t{4} * (static_cast<unsigned char>(packet[0]) & 0x0f);
  }
  if (bytes < skip + kHeaderBytes + mark_.size()) return false;
  auto type = static_cast<unsigned char>(packet[skip]);
  return type == (ipv6_ ? ICMP6_ECHO_REPLY : ICMP_ECHOREPLY) &&
         std::memcmp(packet + skip + kHeaderBytes, mark_.data(), mark_.size()) == 0;
}

}  // namespace Member
