// net-snmp's agent in this process: standalone, or as subagent of a master. One at a time.
#pragma once

#include <array>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "host/SnmpPump.h"
#include "runtime/EventLoop.h"

namespace Host {

struct SnmpOptions {
  std::vector<std::string> listen;  // net-snmp transport addresses; empty: what the file says, or the default
  std::string agentx;               // address of the master agent; empty: standalone
  std::string conf;                 // file in snmpd.conf syntax; empty: the default access
};

// Where net-snmp listens unless told otherwise.
inline constexpr const char* kDefaultListen = "udp:127.0.0.1:1161";

class SnmpAgent {
 public:
  // Starts the agent. Anything that makes the options unusable is found in error(); the agent must be
  // destroyed then.
  SnmpAgent(Runtime::EventLoop& loop, const SnmpOptions& options);
  ~SnmpAgent();
  SnmpAgent(const SnmpAgent&) = delete;
  SnmpAgent& operator=(const SnmpAgent&) = delete;

  // One line; empty when the agent is up.
  const std::string& error() const { return error_; }
  bool subagent() const { return !options_.agentx.empty(); }
  // Whether a subagent's session with its master is up; always true for a standalone agent.
  bool connected() const { return !subagent() || connected_; }
  // Where the agent listens, or the master's address.
  std::string address() const;

 private:
  struct Callback {
    int major;
    int minor;
    int (*function)(int, int, void*, void*);
  };
  static std::array<Callback, 3> callbacks();

  void start();
  void configure();
  void openState();
  void listen();
  static int logged(int major, int minor, void* message, void* self);
  static int connectedIs(int major, int minor, void* session, void* self);
  static int disconnectedIs(int major, int minor, void* session, void* self);

  SnmpOptions options_;
  std::string error_;
  std::string firstError_;  // of net-snmp while it starts
  // What net-snmp says while it starts, told when it is up: a start that fails is told in one line.
  std::vector<std::pair<int, std::string>> held_;
  bool configuring_ = false;
  bool connected_ = false;
  std::optional<SnmpPump> pump_;
  Runtime::EventLoop& loop_;
};

}  // namespace Host
