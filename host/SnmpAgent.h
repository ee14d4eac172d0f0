// net-snmp's agent: standalone, or as subagent of a master. A process has one at a time. For the loop's
// thread.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <vector>

#include "host/AnswerSize.h"
#include "host/SnmpConf.h"
#include "host/SnmpPump.h"
#include "platform/zavro/Duration.h"
#include "runtime/EventLoop.h"

namespace Host {

struct SnmpOptions {
  std::vector<std::string> listen;  // net-snmp transport addresses; empty: the default
  std::string agentx;               // address of the master agent; empty: standalone
  std::string conf;                 // file in snmpd.conf syntax; empty: the default access
};

// Where it listens by default.
inline constexpr const char* kDefaultListen = "udp:127.0.0.1:1161";

class SnmpAgent {
 public:
  // Initialises net-snmp. Reads the SNMPv3 boot count from the directory and stores it plus one before any
  // request is answered, so that also a life that ends by a kill counts. Reads files, so it may hang. When
  // options or directory cannot be used, error() says so, and the agent must be destroyed. No other process
  // may use the directory.
  SnmpAgent(Runtime::EventLoop& loop, const SnmpOptions& options, const std::string& stateDirectory);
  ~SnmpAgent();
  SnmpAgent(const SnmpAgent&) = delete;
  SnmpAgent& operator=(const SnmpAgent&) = delete;

  // Listens, or connects to the master; sets error() when it cannot listen. Requires: error() is empty.
  void serve();

  // One line; empty when the agent is usable.
  const std::string& error() const { return error_; }

  // Replaces the lines of --conf that are in force. Returns what is wrong, in one line; the former lines stay
  // in force then. Users whose line stays keep their keys. `notReloaded` becomes the words whose changed
  // lines take effect only after a restart. Requires: serve() was called; not a subagent.
  std::string reload(const SnmpConf& conf, std::vector<std::string>& notReloaded);

  bool subagent() const { return !options_.agentx.empty(); }
  // Whether a subagent's session with its master is up; always true for a standalone agent.
  bool connected() const { return !subagent() || connected_; }
  // The value of sysUpTime; for a subagent the master's, once that has answered.
  Zavro::Duration uptime() const;
  // Where the agent listens, or the master's address.
  std::string address() const;

 private:
  struct Callback {
    int major;
    int minor;
    int (*function)(int, int, void*, void*);
  };
  static std::array<Callback, 5> callbacks();

  std::string readFiles();
  void configure();
  void start();
  void refuseToBeWritten();
  std::string store();
  void listen();

  std::string enforce(const std::vector<SnmpLine>& lines);
  void apply(const std::vector<SnmpLine>& lines, int when);
  void told(int level, std::string text);

  static int logged(int major, int minor, void* message, void* self);
  static int readsEarly(int major, int minor, void* unused, void* self);
  static int reads(int major, int minor, void* unused, void* self);
  static int connectedIs(int major, int minor, void* session, void* self);
  static int disconnectedIs(int major, int minor, void* session, void* self);

  SnmpOptions options_;
  std::string directory_;
  std::string error_;
  std::string firstError_;  // the first that net-snmp logged, but about lines
  std::string lineError_;   // the first that it logged about a line
  // What net-snmp logs at the start. Traced after it: a start that fails is reported in one line.
  std::vector<std::pair<int, std::string>> held_;
  std::vector<SnmpLine> state_;        // from the state directory, until net-snmp has read them
  std::vector<SnmpLine> access_;       // in force
  std::vector<SnmpLine> before_;       // in force before
  const SnmpLine* reading_ = nullptr;  // the line that net-snmp is reading
  bool configuring_ = false;
  std::optional<AnswerSize> answerSize_;
  bool connected_ = false;
  std::optional<SnmpPump> pump_;
  Runtime::EventLoop& loop_;
};

}  // namespace Host
