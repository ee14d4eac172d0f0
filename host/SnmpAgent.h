// net-snmp's agent in this process: standalone, or as subagent of a master. One at a time.
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

// Where net-snmp listens unless told otherwise.
inline constexpr const char* kDefaultListen = "udp:127.0.0.1:1161";

class SnmpAgent {
 public:
  // Makes the agent, with the boots that the directory has stored, counts one more, and stores them: whoever
  // is answered later can tell this life from the one before, also when it is killed. Reads files, so it may
  // hang. Anything that makes options or directory unusable is found in error(); the agent must be destroyed
  // then. The directory is this process's alone.
  SnmpAgent(Runtime::EventLoop& loop, const SnmpOptions& options, const std::string& stateDirectory);
  ~SnmpAgent();
  SnmpAgent(const SnmpAgent&) = delete;
  SnmpAgent& operator=(const SnmpAgent&) = delete;

  // Listens, or connects to the master. Requires: error() is empty; it may not be afterwards.
  void serve();

  // One line; empty when the agent is usable.
  const std::string& error() const { return error_; }

  // Puts the lines of a --conf in force instead of those that are, at once for every request. Returns what is
  // wrong, in one line; what was in force stays then. Users whose line stays keep their keys. `notReloaded`
  // becomes the words whose lines changed without effect before a restart. Requires: serve() was called, not
  // a subagent.
  std::string reload(const SnmpConf& conf, std::vector<std::string>& notReloaded);

  bool subagent() const { return !options_.agentx.empty(); }
  // Whether a subagent's session with its master is up; always true for a standalone agent.
  bool connected() const { return !subagent() || connected_; }
  // What sysUpTime says, which is the master's for a subagent that has had an answer from it.
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
  std::string firstError_;  // of net-snmp while it starts
  std::string lineError_;   // its first word against a line
  // What net-snmp says while it starts, told when it is up: a start that fails is told in one line.
  std::vector<std::pair<int, std::string>> held_;
  std::vector<SnmpLine> state_;        // what was stored, until it is read
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
