#include "host/SnmpPump.h"

#include <fmt/format.h>
#include <sys/epoll.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "snmp-modules/NetSnmp.h"
// NetSnmp.h does not include it.
#include <net-snmp/library/large_fd_set.h>

namespace Host {
namespace {

// After so many reads in a row, tasks and other clients get their turn.
constexpr int kMaxReadsPerTurn = 8;

class DescriptorSet {
 public:
  DescriptorSet() { netsnmp_large_fd_set_init(&set_, FD_SETSIZE); }
  ~DescriptorSet() { netsnmp_large_fd_set_cleanup(&set_); }
  DescriptorSet(const DescriptorSet&) = delete;
  DescriptorSet& operator=(const DescriptorSet&) = delete;

  netsnmp_large_fd_set* get() { return &set_; }
  void insert(int fd) { netsnmp_large_fd_setfd(fd, &set_); }
  bool contains(int fd) { return netsnmp_large_fd_is_set(fd, &set_) != 0; }

 private:
  netsnmp_large_fd_set set_;
};

uint64_t milliseconds(const timeval& time) {
  return static_cast<uint64_t>(time.tv_sec) * 1000 + (static_cast<uint64_t>(time.tv_usec) + 999) / 1000;
}

Runtime::Descriptor epollSet() {
  Runtime::Descriptor set(epoll_create1(EPOLL_CLOEXEC));
  if (!set.opened()) throw std::runtime_error(fmt::format("no wait for SNMP: {}", std::strerror(errno)));
  return set;
}

}  // namespace

SnmpPump::SnmpPump(Runtime::EventLoop& loop)
    : epoll_(epollSet()),
      prepare_([&](uv_prepare_t* prepare) { return uv_prepare_init(loop.uv(), prepare); }),
      poll_([&](uv_poll_t* poll) { return uv_poll_init(loop.uv(), poll, epoll_.get()); }),
      deadline_(loop, [] {
        snmp_timeout();
        run_alarms();
      }) {
  prepare_->data = this;
  poll_->data = this;
  uv_prepare_start(prepare_.get(),
                   [](uv_prepare_t* prepare) { static_cast<SnmpPump*>(prepare->data)->prepare(); });
  uv_poll_start(poll_.get(), UV_READABLE,
                [](uv_poll_t* poll, int, int) { static_cast<SnmpPump*>(poll->data)->receive(); });
}

// Stops before the epoll set is closed.
SnmpPump::~SnmpPump() { uv_poll_stop(poll_.get()); }

// Called before the loop waits: takes over net-snmp's sockets and its next timeout.
void SnmpPump::prepare() {
  netsnmp_check_outstanding_agent_requests();
  DescriptorSet wanted;
  int count = 0;
  int mayBlock = 1;
  timeval timeout{};
  snmp_select_info2(&count, wanted.get(), &timeout, &mayBlock);
  std::set<int> descriptors;
  for (int fd = 0; fd < count; ++fd) {
    if (wanted.contains(fd)) descriptors.insert(fd);
  }
  follow(descriptors);
  if (mayBlock != 0) {
    deadline_.stop();
  } else {
    deadline_.start(milliseconds(timeout));
  }
}

void SnmpPump::follow(const std::set<int>& descriptors) {
  for (int fd : followed_) {
    if (!descriptors.contains(fd)) epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr);
  }
  // Adds all: epoll refuses those that it has, and only it knows whether a number is a new socket.
  for (int fd : descriptors) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = fd;
    epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event);
  }
  followed_ = descriptors;
}

void SnmpPump::receive() {
  for (int reads = 0; reads < kMaxReadsPerTurn; ++reads) {
    std::array<epoll_event, 64> events{};
    int count = epoll_wait(epoll_.get(), events.data(), static_cast<int>(events.size()), 0);
    if (count <= 0) break;
    DescriptorSet readable;
    for (int i = 0; i < count; ++i) readable.insert(events[static_cast<size_t>(i)].data.fd);
    snmp_read2(readable.get());
    netsnmp_check_outstanding_agent_requests();
  }
}

}  // namespace Host
