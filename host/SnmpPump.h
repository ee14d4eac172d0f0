// Runs net-snmp's sessions on the event loop: waits for their sockets and timeouts, and lets net-snmp read
// what arrives. Also with descriptors of FD_SETSIZE and above.
#pragma once

#include <set>

#include "runtime/EventLoop.h"

namespace Host {

class SnmpPump {
 public:
  // Throws std::runtime_error, in one line, when the system has no descriptor for it.
  explicit SnmpPump(Runtime::EventLoop& loop);
  ~SnmpPump();
  SnmpPump(const SnmpPump&) = delete;
  SnmpPump& operator=(const SnmpPump&) = delete;

 private:
  void prepare();
  void follow(const std::set<int>& descriptors);
  void receive();

  // net-snmp opens and closes sockets at any time, and a new one may get the number of a closed one. An epoll
  // set forgets closed sockets by itself; the loop waits for the set.
  Runtime::Descriptor epoll_;
  std::set<int> followed_;
  Runtime::UvHandle<uv_prepare_t> prepare_;
  Runtime::UvHandle<uv_poll_t> poll_;
  Runtime::Timer deadline_;
};

}  // namespace Host
