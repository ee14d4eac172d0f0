#include "tests/support/Relay.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <utility>
#include <vector>

namespace Support {
namespace {

constexpr size_t kMaxHeld = 1 << 20;

sockaddr_in loopback(uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  return address;
}

int tcpSocket() { return socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0); }

// Whether the TCP socket with this local port is the process's.
bool isOf(pid_t process, uint16_t localPort) {
  std::ifstream table("/proc/net/tcp");
  std::string local = fmt::format("0100007F:{:04X}", localPort);
  for (std::string line; std::getline(table, line);) {
    std::istringstream words(line);
    std::vector<std::string> word{std::istream_iterator<std::string>(words), {}};
    if (word.size() < 10 || word[1] != local) continue;
    std::string socket = fmt::format("socket:[{}]", word[9]);
    std::error_code gone;
    for (const auto& fd : std::filesystem::directory_iterator(fmt::format("/proc/{}/fd", process), gone)) {
      if (std::filesystem::read_symlink(fd.path(), gone) == socket) return true;
    }
  }
  return false;
}

}  // namespace

Relay::Relay(uint16_t target, uint16_t port)
    : target_(target), listener_(tcpSocket()), wake_(eventfd(0, EFD_CLOEXEC)) {
  sockaddr_in address = loopback(port);
  socklen_t length = sizeof address;
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  bool listens = bind(listener_, generic, length) == 0 && listen(listener_, 64) == 0 &&
                 getsockname(listener_, generic, &length) == 0;
  if (!listens) throw std::runtime_error("no port for a relay");
  port_ = ntohs(address.sin_port);
  thread_ = std::thread([this] { run(); });
}

Relay::~Relay() {
  ends_ = true;
  rulesAre({});
  thread_.join();
  for (Connection& connection : connections_) {
    close(connection.out.from);
    close(connection.out.to);
  }
  close(listener_);
  close(wake_);
}

std::string Relay::endpoint() const { return fmt::format("127.0.0.1:{}", port_); }

void Relay::cut() { rulesAre({.cutAll = true}); }
void Relay::cutFrom(pid_t client) { rulesAre({.cutFrom = client}); }
void Relay::freeze() { rulesAre({.frozen = true}); }
void Relay::slow(Millis delay, size_t bytesPerSecond) {
  rulesAre({.delay = delay, .bytesPerSecond = bytesPerSecond});
}
void Relay::heal() { rulesAre({}); }

void Relay::rulesAre(const Rules& rules) {
  {
    std::lock_guard lock(mutex_);
    rules_ = rules;
    news_.push_back(rules);
  }
  uint64_t one = 1;
  if (::write(wake_, &one, sizeof one) < 0) throw std::runtime_error("a relay cannot be woken");
}

bool Relay::isCut(const Rules& rules, uint16_t clientPort) {
  return rules.cutAll || (rules.cutFrom != 0 && isOf(rules.cutFrom, clientPort));
}

void Relay::run() {
  Rules applied;
  while (!ends_) {
    Rules rules;
    {
      std::lock_guard lock(mutex_);
      rules = rules_;
    }
    std::vector<pollfd> fds = {{wake_, POLLIN, 0}, {listener_, POLLIN, 0}};
    auto now = Clock::now();
    auto wakeAt = now + std::chrono::hours(1);
    for (Connection& connection : connections_) {
      for (Direction* direction : {&connection.out, &connection.back}) {
        bool reads = !rules.frozen && !direction->ended && direction->held < kMaxHeld;
        bool due = false;
        if (!rules.frozen && !direction->chunks.empty()) {
          due = direction->chunks.front().due <= now;
          if (!due) wakeAt = std::min(wakeAt, direction->chunks.front().due);
        }
        // A socket that nothing is wanted of is not looked at: one that hung up would be reported for ever.
        fds.push_back({reads ? direction->from : -1, POLLIN, 0});
        fds.push_back({due ? direction->to : -1, POLLOUT, 0});
      }
    }
    auto wait = std::chrono::ceil<Millis>(wakeAt - now).count();
    poll(fds.data(), fds.size(), static_cast<int>(wait));
    if (fds[0].revents != 0) {
      uint64_t count = 0;
      [[maybe_unused]] ssize_t taken = ::read(wake_, &count, sizeof count);
    }
    // Whether it was woken or not: what a server says once cut() has returned may be here before the waking.
    // A cut ends connections also when it is healed by now.
    std::vector<Rules> news;
    {
      std::lock_guard lock(mutex_);
      rules = rules_;
      news = std::exchange(news_, {});
    }
    for (const Rules& one : news) {
      for (Connection& connection : connections_) {
        connection.broken = connection.broken || isCut(one, connection.clientPort);
      }
    }
    size_t at = 2;
    for (Connection& connection : connections_) {
      for (Direction* direction : {&connection.out, &connection.back}) {
        bool readable = fds[at++].revents != 0 && !rules.frozen;
        bool writable = fds[at++].revents != 0 && !rules.frozen;
        // Nothing gets through a cut, be it read already.
        if (connection.broken) continue;
        if (readable) read(*direction, rules, connection);
        if (writable) write(*direction, connection);
        if (direction->ended && direction->chunks.empty() && !direction->shut) {
          shutdown(direction->to, SHUT_WR);
          direction->shut = true;
        }
      }
    }
    if (fds[1].revents != 0) takeConnection(rules);
    std::erase_if(connections_, [](Connection& connection) {
      bool over = connection.broken || (connection.out.shut && connection.back.shut);
      if (over) {
        close(connection.out.from);
        close(connection.out.to);
      }
      return over;
    });
  }
}

void Relay::takeConnection(const Rules& rules) {
  sockaddr_in client{};
  socklen_t length = sizeof client;
  int near = accept4(listener_, reinterpret_cast<sockaddr*>(&client), &length, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (near < 0) return;
  uint16_t clientPort = ntohs(client.sin_port);
  int far = tcpSocket();
  sockaddr_in server = loopback(target_);
  bool open =
      !isCut(rules, clientPort) &&
      (connect(far, reinterpret_cast<sockaddr*>(&server), sizeof server) == 0 || errno == EINPROGRESS);
  if (!open) {
    close(near);
    close(far);
    return;
  }
  int on = 1;
  for (int fd : {near, far}) setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  Connection& connection = connections_.emplace_back();
  connection.clientPort = clientPort;
  connection.out.from = connection.back.to = near;
  connection.out.to = connection.back.from = far;
}

void Relay::read(Direction& direction, const Rules& rules, Connection& connection) {
  std::array<char, 64 * 1024> bytes;
  ssize_t count = recv(direction.from, bytes.data(), bytes.size(), 0);
  if (count < 0) {
    connection.broken = connection.broken || (errno != EAGAIN && errno != EINTR);
    return;
  }
  if (count == 0) {
    direction.ended = true;
    return;
  }
  auto size = static_cast<size_t>(count);
  if (&direction == &connection.back) bytesBack_ += size;
  auto due = Clock::now() + rules.delay;
  if (!direction.chunks.empty()) due = std::max(due, direction.chunks.back().due);
  if (rules.bytesPerSecond > 0) {
    due += std::chrono::microseconds(1'000'000 * size / rules.bytesPerSecond);
  }
  direction.chunks.push_back({due, std::string(bytes.data(), size)});
  direction.held += size;
}

void Relay::write(Direction& direction, Connection& connection) {
  while (!direction.chunks.empty() && direction.chunks.front().due <= Clock::now()) {
    std::string& bytes = direction.chunks.front().bytes;
    ssize_t count = send(direction.to, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (count < 0) {
      connection.broken = connection.broken || (errno != EAGAIN && errno != EINTR);
      return;
    }
    direction.held -= static_cast<size_t>(count);
    bytes.erase(0, static_cast<size_t>(count));
    if (!bytes.empty()) return;
    direction.chunks.pop_front();
  }
}

}  // namespace Support
