#include "host/SnmpAgent.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "runtime/Directories.h"
#include "snmp-modules/NetSnmp.h"
// Not among those that it includes.
#include <net-snmp/agent/agent_callbacks.h>

#include "platform/lumalog/Lumalog.h"

// Modules of net-snmp's own library of MIB implementations; its headers do not declare them one by one.
extern "C" {
void init_system_mib(void);
void init_sysORTable(void);
}

namespace Host {
namespace {

constexpr const char* kApplication = "trelsnmpd";
const Lumalog::Handle traceHandle("NetSnmp");

// How often a subagent makes sure of its master, and tries to reach it again when it is gone.
constexpr int kPingIntervalSeconds = 2;
// net-snmp waits for the master's answers without turning the loop, by default for six seconds in all. A
// master that hangs counts as gone sooner. (Opening a session knows whole seconds only.)
constexpr int kMasterTimeoutUs = 500'000;

// What a manager sees without a configuration file: the system group and the served tables, to read, from
// this machine.
std::vector<std::string> defaultAccess() {
  std::string served = fmt::format(".1.3.6.1.4.1.{}.3", TREL_ENTERPRISE_NUMBER);
  return {"view trelServed included .1.3.6.1.2.1.1", fmt::format("view trelServed included {}.40", served),
          fmt::format("view trelServed included {}.41", served), "rocommunity public 127.0.0.1 -V trelServed",
          "rocommunity6 public ::1 -V trelServed"};
}

void setFlag(int which) { netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, which, 1); }

void setNumber(int which, int number) { netsnmp_ds_set_int(NETSNMP_DS_APPLICATION_ID, which, number); }

// On one line, whatever it was on.
std::string onOneLine(std::string_view text) {
  std::string line;
  for (char c : text) {
    bool blank = c == ' ' || c == '\n' || c == '\t';
    if (!blank) {
      line += c;
    } else if (!line.empty() && line.back() != ' ') {
      line += ' ';
    }
  }
  while (line.ends_with(' ')) line.pop_back();
  return line;
}

int levelOf(int priority) { return priority <= LOG_ERR ? 0 : priority <= LOG_WARNING ? 1 : 2; }

std::string joined(const std::vector<std::string>& parts) {
  std::string all;
  for (const std::string& part : parts) all += (all.empty() ? "" : ",") + part;
  return all;
}

const char* ports() { return netsnmp_ds_get_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_PORTS); }

}  // namespace

SnmpAgent::SnmpAgent(Runtime::EventLoop& loop, const SnmpOptions& options) : options_(options), loop_(loop) {
  snmp_disable_log();
  netsnmp_register_loghandler(NETSNMP_LOGHANDLER_CALLBACK, LOG_DEBUG);
  for (const Callback& callback : callbacks()) {
    snmp_register_callback(callback.major, callback.minor, callback.function, this);
  }
  if (!options_.conf.empty() && access(options_.conf.c_str(), R_OK) != 0) {
    error_ = fmt::format("--conf {}: {}", options_.conf, std::strerror(errno));
    return;
  }
  start();
}

SnmpAgent::~SnmpAgent() {
  pump_.reset();
  // Before the shutdown, which takes what callbacks were registered with for memory of its own and frees it.
  for (const Callback& callback : callbacks()) {
    snmp_unregister_callback(callback.major, callback.minor, callback.function, this, /*matchargs=*/1);
  }
  if (configuring_) {
    // In this order: shutdown_agent() frees what snmp_shutdown() still uses.
    snmp_shutdown(kApplication);
    shutdown_agent();
  }
}

std::array<SnmpAgent::Callback, 3> SnmpAgent::callbacks() {
  return {{{SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_LOGGING, &SnmpAgent::logged},
           {SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_INDEX_START, &SnmpAgent::connectedIs},
           {SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_INDEX_STOP, &SnmpAgent::disconnectedIs}}};
}

std::string SnmpAgent::address() const {
  if (subagent()) return options_.agentx;
  return ports() == nullptr ? "" : ports();
}

// Settings that are not in any file, before net-snmp reads one.
void SnmpAgent::configure() {
  setFlag(NETSNMP_DS_AGENT_NO_ROOT_ACCESS);
  setFlag(NETSNMP_DS_AGENT_DONT_LOG_TCPWRAPPERS_CONNECTS);
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_ALARM_DONT_USE_SIG, 1);
  if (subagent()) {
    setFlag(NETSNMP_DS_AGENT_ROLE);
    netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_X_SOCKET, options_.agentx.c_str());
  }
  // SMUX, the forerunner of AgentX, would listen on TCP port 199 for whoever comes.
  std::string without = "-smux";
  add_to_init_list(without.data());
  // Nothing here needs names for object identifiers, and loading MIB files takes longer than all the rest.
  setenv("MIBS", "", /*overwrite=*/0);
  openState();
  if (options_.conf.empty() && !subagent()) {
    for (const std::string& line : defaultAccess()) netsnmp_config(const_cast<char*>(line.c_str()));
  } else if (!options_.conf.empty()) {
    netsnmp_ds_set_string(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_OPTIONALCONFIG, options_.conf.c_str());
  }
}

// net-snmp's own search path would bring in /etc/snmp; it gets a path on which only its saved state is. (The
// switch that stops the saving of state stops the reading of files as well.)
void SnmpAgent::openState() {
  std::string directory = Runtime::stateDirectory("trelsnmpd");
  std::error_code failure;
  std::filesystem::create_directories(directory, failure);
  if (failure || access(directory.c_str(), W_OK) != 0) {
    traceHandle.trace(1, "{}: {}, the SNMPv3 boot count will not survive a restart", directory,
                      failure ? failure.message() : std::strerror(errno));
  }
  unsetenv("SNMPCONFPATH");
  unsetenv("SNMP_PERSISTENT_FILE");
  set_persistent_directory(directory.c_str());
  set_configuration_directory((directory + "/conf.d").c_str());
}

void SnmpAgent::start() {
  configure();
  configuring_ = true;
  if (init_agent(kApplication) != 0) {
    error_ = "net-snmp's agent cannot be initialised: " + firstError_;
    return;
  }
  if (subagent()) {
    // Only now, since init_agent() sets values of its own.
    setNumber(NETSNMP_DS_AGENT_AGENTX_PING_INTERVAL, kPingIntervalSeconds);
    setNumber(NETSNMP_DS_AGENT_AGENTX_TIMEOUT, kMasterTimeoutUs);
    setNumber(NETSNMP_DS_AGENT_AGENTX_RETRIES, 0);
    netsnmp_ds_set_int(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_RETRIES, 0);
  } else {
    init_sysORTable();
    init_system_mib();
  }
  init_snmp(kApplication);
  if (!options_.conf.empty() && !firstError_.empty()) error_ = fmt::format("--conf {}", firstError_);
  if (error_.empty() && !subagent()) listen();
  if (!error_.empty()) return;
  pump_.emplace(loop_);
  for (const auto& [level, text] : held_) traceHandle.trace(level, "{}", text);
  held_.clear();
  if (!connected()) {
    traceHandle.trace(1, "no master agent at {} yet, trying again every {} s", address(),
                      kPingIntervalSeconds);
  }
}

void SnmpAgent::listen() {
  if (!options_.listen.empty() || ports() == nullptr) {
    std::string addresses = options_.listen.empty() ? kDefaultListen : joined(options_.listen);
    netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_PORTS, addresses.c_str());
  }
  errno = 0;
  if (init_master_agent() == 0) return;
  int reason = errno;
  error_ = fmt::format("--listen {}: {}{}{}", address(), firstError_, reason == 0 ? "" : ": ",
                       reason == 0 ? "" : std::strerror(reason));
}

int SnmpAgent::logged(int /*major*/, int /*minor*/, void* message, void* self) {
  auto* agent = static_cast<SnmpAgent*>(self);
  const auto* entry = static_cast<const snmp_log_message*>(message);
  std::string text = onOneLine(entry->msg);
  if (text.empty()) return 0;
  int level = levelOf(entry->priority);
  if (agent->pump_) {
    traceHandle.trace({"", text}, level, "{}", text);
    return 0;
  }
  if (level == 0 && agent->firstError_.empty()) agent->firstError_ = text;
  agent->held_.emplace_back(level, std::move(text));
  return 0;
}

int SnmpAgent::connectedIs(int /*major*/, int /*minor*/, void* /*session*/, void* self) {
  auto* agent = static_cast<SnmpAgent*>(self);
  if (!agent->connected_) traceHandle.trace(1, "connected to the master agent at {}", agent->address());
  agent->connected_ = true;
  return 0;
}

int SnmpAgent::disconnectedIs(int /*major*/, int /*minor*/, void* /*session*/, void* self) {
  auto* agent = static_cast<SnmpAgent*>(self);
  if (agent->connected_) {
    traceHandle.trace(1, "lost the master agent at {}, trying again every {} s", agent->address(),
                      kPingIntervalSeconds);
  }
  agent->connected_ = false;
  return 0;
}

}  // namespace Host
