// Lets net-snmp's sessions live on the event loop: waits for their sockets and deadlines, and hands over what
// arrives. Works whatever the number and the numbers of their descriptors are.
#pragma once

#include <set>

#include "runtime/EventLoop.h"

namespace Host {

class SnmpPump {
 public:
  // Throws std::runtime_error, in one line, when the system refuses what it takes.
  explicit SnmpPump(Runtime::EventLoop& loop);
  ~SnmpPump();
  SnmpPump(const SnmpPump&) = delete;
  SnmpPump& operator=(const SnmpPump&) = delete;

 private:
  void prepare();
  void follow(const std::set<int>& descriptors);
  void receive();

  // net-snmp opens and closes sockets as it likes, and a number may stand for another socket in the next
  // turn. An epoll set of our own forgets a socket when it is closed; the loop waits for the set.
  Runtime::Descriptor epoll_;
  std::set<int> followed_;
  Runtime::UvHandle<uv_prepare_t> prepare_;
  Runtime::UvHandle<uv_poll_t> poll_;
  Runtime::Timer deadline_;
};

}  // namespace Host
