#include "host/SnmpAgent.h"

#include "platform/zavro/Assert.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <utility>

#include "host/SnmpWords.h"
#include "runtime/File.h"
#include "snmp-modules/NetSnmp.h"
// NetSnmp.h does not include it.
#include <net-snmp/agent/agent_callbacks.h>

#include "platform/lumalog/Lumalog.h"

// Modules of net-snmp's own library of MIB implementations; its headers do not declare them one by one.
extern "C" {
void init_system_mib(void);
void init_sysORTable(void);

// Replaces libwrap's function, which would read /etc/hosts.allow and hosts.deny for every packet, on the
// event loop's thread. Access is defined by --conf alone.
int hosts_ctl(char* /*daemon*/, char* /*name*/, char* /*address*/, char* /*user*/) { return 1; }

// Replaces the function in which net-snmp waits for an answer of the master, on the event loop's thread. If a
// master stops answering while tables are registered, net-snmp would wait once for each of them. After the
// first timeout this sends nothing more, so that the next ping finds the master gone, until a session is
// opened anew.
int snmp_synch_response_cb(netsnmp_session* session, netsnmp_pdu* pdu, netsnmp_pdu** response,
                           snmp_callback input) {
  static const auto ask =
      reinterpret_cast<decltype(&snmp_synch_response_cb)>(dlsym(RTLD_NEXT, "snmp_synch_response_cb"));
  static bool gone = false;
  constexpr int kOpenSession = 1;  // of AgentX's protocol, for which no header is installed
  zavroAssert(ask != nullptr);
  if (pdu->command == kOpenSession) gone = false;
  if (gone) {
    snmp_free_pdu(pdu);
    *response = nullptr;
    return STAT_TIMEOUT;
  }
  int status = ask(session, pdu, response, input);
  gone = status == STAT_TIMEOUT;
  return status;
}
}

namespace Host {
namespace {

constexpr const char* kApplication = "trelsnmpd";
constexpr const char* kStateName = "/trelsnmpd.conf";
const Lumalog::Handle traceHandle("NetSnmp");

// How often a subagent pings its master, or tries to reach a lost one.
constexpr int kPingIntervalSeconds = 2;
// net-snmp blocks the loop while it waits for the master's answers, by default for six seconds in all. A
// master that hangs counts as lost sooner. (For opening a session, net-snmp rounds this to whole seconds.)
constexpr int kMasterTimeoutUs = 500'000;

bool contains(const std::vector<SnmpLine>& lines, const SnmpLine& line) {
  return std::find(lines.begin(), lines.end(), line) != lines.end();
}

// Null when the line makes no user, or net-snmp does not have it.
usmUser* userMadeBy(const SnmpLine& line) {
  std::string name = userNamedBy(line);
  std::array<u_char, 64> engine{};
  size_t size = snmpv3_get_engineID(engine.data(), engine.size());
  return name.empty() ? nullptr : usm_get_user(engine.data(), size, name.c_str());
}

// Whether the boot count and all users to be stored are among the lines.
bool isWhole(const std::vector<SnmpLine>& lines) {
  SnmpLine boots{"", "engineBoots", std::to_string(snmpv3_local_snmpEngineBoots())};
  auto users =
      std::count_if(lines.begin(), lines.end(), [](const auto& line) { return line.word == "usmUser"; });
  for (const usmUser* user = usm_get_userList(); user != nullptr; user = user->next) {
    if (user->userStorageType == ST_NONVOLATILE) --users;
  }
  return users == 0 && contains(lines, boots);
}

// Null when this net-snmp does not know the word.
const config_line* readerOf(const std::string& word) {
  const config_line* reader = read_config_get_handlers(kApplication);
  while (reader != nullptr && strcasecmp(reader->config_token, word.c_str()) != 0) reader = reader->next;
  return reader;
}

// Whether net-snmp reads and writes its persistent files.
void persist(bool whether) {
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_PERSIST_STATE, whether ? 0 : 1);
}

void setFlag(int which) { netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, which, 1); }

void setNumber(int which, int number) { netsnmp_ds_set_int(NETSNMP_DS_APPLICATION_ID, which, number); }

// Writes the file or directory to disk, so that it survives a loss of power. Whether that worked.
bool isOnDisk(const std::string& path) {
  Runtime::Descriptor opened(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  return opened.opened() && fsync(opened.get()) == 0;
}

// Each run of blanks and newlines as one blank.
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

// Without net-snmp's position, as it gets no file: "(null): line 0: Error: bad mask" becomes "bad mask".
std::string withoutPosition(const std::string& text) {
  constexpr std::string_view kPosition = "(null): line 0: ";
  if (!text.starts_with(kPosition)) return text;
  size_t end = text.find(": ", kPosition.size());
  return end == std::string::npos ? text : text.substr(end + 2);
}

int levelOf(int priority) { return priority <= LOG_ERR ? 0 : priority <= LOG_WARNING ? 1 : 2; }

std::string joined(const std::vector<std::string>& parts) {
  std::string all;
  for (const std::string& part : parts) all += (all.empty() ? "" : ",") + part;
  return all;
}

const char* ports() { return netsnmp_ds_get_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_PORTS); }

}  // namespace

SnmpAgent::SnmpAgent(Runtime::EventLoop& loop, const SnmpOptions& options, const std::string& stateDirectory)
    : options_(options), directory_(stateDirectory), loop_(loop) {
  snmp_disable_log();
  netsnmp_register_loghandler(NETSNMP_LOGHANDLER_CALLBACK, LOG_DEBUG);
  for (const Callback& callback : callbacks()) {
    snmp_register_callback(callback.major, callback.minor, callback.function, this);
  }
  error_ = readFiles();
  if (error_.empty()) start();
}

SnmpAgent::~SnmpAgent() {
  pump_.reset();
  answerSize_.reset();
  // Before the shutdown, which would free the callbacks' argument, this.
  for (const Callback& callback : callbacks()) {
    snmp_unregister_callback(callback.major, callback.minor, callback.function, this, /*matchargs=*/1);
  }
  if (configuring_) {
    // In this order: shutdown_agent() frees what snmp_shutdown() still uses.
    snmp_shutdown(kApplication);
    shutdown_agent();
  }
}

std::array<SnmpAgent::Callback, 5> SnmpAgent::callbacks() {
  return {{{SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_LOGGING, &SnmpAgent::logged},
           {SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_PRE_PREMIB_READ_CONFIG, &SnmpAgent::readsEarly},
           {SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_PRE_READ_CONFIG, &SnmpAgent::reads},
           {SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_INDEX_START, &SnmpAgent::connectedIs},
           {SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_INDEX_STOP, &SnmpAgent::disconnectedIs}}};
}

std::string SnmpAgent::address() const {
  if (subagent()) return options_.agentx;
  return ports() == nullptr ? "" : ports();
}

Zavro::Duration SnmpAgent::uptime() const {
  unsigned long ticks = netsnmp_get_agent_uptime();
  // The master's has the 32 bits of a message; net-snmp sign-extends them.
  if (subagent()) ticks = static_cast<uint32_t>(ticks);
  return Zavro::Duration(static_cast<double>(ticks) / 100);
}

// Returns what is wrong with them.
std::string SnmpAgent::readFiles() {
  SnmpConf state = readSnmpConf(directory_ + kStateName, SnmpFile::state);
  if (!state.errors.empty()) return state.errors.front();
  state_ = std::move(state.lines);
  if (subagent()) return "";
  SnmpConf access = readAccess(options_.conf);
  access_ = std::move(access.lines);
  return access.errors.empty() ? "" : access.errors.front();
}

void SnmpAgent::configure() {
  setFlag(NETSNMP_DS_AGENT_NO_ROOT_ACCESS);
  setFlag(NETSNMP_DS_AGENT_DONT_LOG_TCPWRAPPERS_CONNECTS);
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_ALARM_DONT_USE_SIG, 1);
  if (subagent()) {
    setFlag(NETSNMP_DS_AGENT_ROLE);
    netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_X_SOCKET, options_.agentx.c_str());
  }
  // SMUX, the predecessor of AgentX, would listen on TCP port 199.
  std::string without = "-smux";
  add_to_init_list(without.data());
  // Names of object identifiers are not needed, and loading MIB files takes longer than the rest of the
  // start.
  setenv("MIBS", "", /*overwrite=*/0);
  // net-snmp itself is to read and write no files.
  persist(false);
  unsetenv("SNMP_PERSISTENT_FILE");
  set_persistent_directory(directory_.c_str());
  set_configuration_directory((directory_ + "/conf.d").c_str());
}

void SnmpAgent::start() {
  configure();
  configuring_ = true;
  if (init_agent(kApplication) != 0) {
    error_ = "net-snmp's agent cannot be initialised: " + firstError_;
    return;
  }
  if (subagent()) {
    // After init_agent(), which sets defaults.
    setNumber(NETSNMP_DS_AGENT_AGENTX_PING_INTERVAL, kPingIntervalSeconds);
    setNumber(NETSNMP_DS_AGENT_AGENTX_TIMEOUT, kMasterTimeoutUs);
    setNumber(NETSNMP_DS_AGENT_AGENTX_RETRIES, 0);
    netsnmp_ds_set_int(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_RETRIES, 0);
  } else {
    init_sysORTable();
    init_system_mib();
    refuseToBeWritten();
  }
  if (!subagent()) answerSize_.emplace();
  init_snmp(kApplication);
  error_ = lineError_.empty() ? store() : lineError_;
}

// Makes net-snmp's own objects read-only: values that a manager sets would be stored over a restart.
void SnmpAgent::refuseToBeWritten() {
  for (auto* context = get_top_context_cache(); context != nullptr; context = context->next) {
    for (auto* subtree = context->first_subtree; subtree != nullptr; subtree = subtree->next) {
      if (subtree->reginfo != nullptr) subtree->reginfo->modes &= ~HANDLER_CAN_SET;
    }
  }
}

// net-snmp appends to its file line by line. It gets a new file, which then replaces the old one at once.
std::string SnmpAgent::store() {
  namespace fs = std::filesystem;
  const std::string fresh = directory_ + "/new";
  auto failed = [this](const std::string& why) {
    return fmt::format("{}: SNMPv3 boots cannot be stored: {}", directory_, why);
  };
  std::error_code failure;
  fs::remove_all(fresh, failure);
  persist(true);
  set_persistent_directory(fresh.c_str());
  snmp_call_callbacks(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_STORE_DATA, nullptr);
  set_persistent_directory(directory_.c_str());
  persist(false);
  SnmpConf stored = readSnmpConf(fresh + kStateName, SnmpFile::state);
  if (!stored.errors.empty()) return failed(stored.errors.front());
  if (!isWhole(stored.lines)) return failed(firstError_.empty() ? "not all of it was written" : firstError_);
  if (!isOnDisk(fresh + kStateName)) return failed(std::strerror(errno));
  fs::rename(fresh + kStateName, directory_ + kStateName, failure);
  if (failure) return failed(failure.message());
  fs::remove(fresh, failure);
  return isOnDisk(directory_) ? "" : failed(std::strerror(errno));
}

void SnmpAgent::serve() {
  if (!subagent()) listen();
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
  std::string addresses = options_.listen.empty() ? kDefaultListen : joined(options_.listen);
  netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_PORTS, addresses.c_str());
  firstError_.clear();
  errno = 0;
  if (init_master_agent() == 0) return;
  int reason = errno;
  error_ = fmt::format("--listen {}: {}{}{}", address(), firstError_, reason == 0 ? "" : ": ",
                       reason == 0 ? "" : std::strerror(reason));
}

std::string SnmpAgent::reload(const SnmpConf& conf, std::vector<std::string>& notReloaded) {
  if (!conf.errors.empty()) return conf.errors.front();
  std::vector<SnmpLine> before = access_;
  std::string problem = enforce(conf.lines);
  if (problem.empty()) {
    notReloaded = Host::notReloaded(before, access_);
  } else {
    enforce(before);
  }
  return problem;
}

// Returns the first error that net-snmp has with the lines.
std::string SnmpAgent::enforce(const std::vector<SnmpLine>& lines) {
  before_ = std::exchange(access_, lines);
  for (const SnmpLine& line : before_) {
    usmUser* user = userMadeBy(line);
    if (user == nullptr || contains(access_, line)) continue;
    usm_remove_user(user);
    usm_free_user(user);
  }
  lineError_.clear();
  // Frees what former lines configured, and calls reads() for these.
  update_config();
  return lineError_;
}

// Lines that net-snmp takes before all others, such as the engine's ID.
int SnmpAgent::readsEarly(int /*major*/, int /*minor*/, void* /*unused*/, void* self) {
  auto* agent = static_cast<SnmpAgent*>(self);
  agent->apply(agent->state_, PREMIB_CONFIG);
  agent->apply(agent->access_, PREMIB_CONFIG);
  return 0;
}

int SnmpAgent::reads(int /*major*/, int /*minor*/, void* /*unused*/, void* self) {
  auto* agent = static_cast<SnmpAgent*>(self);
  agent->apply(std::exchange(agent->state_, {}), NORMAL_CONFIG);
  // Lines that cannot be taken back are applied last, when net-snmp has accepted the others.
  std::vector<SnmpLine> last = agent->access_;
  auto middle = std::stable_partition(last.begin(), last.end(), canBeTakenBack);
  agent->apply({last.begin(), middle}, NORMAL_CONFIG);
  last.erase(last.begin(), middle);
  if (agent->lineError_.empty()) agent->apply(last, NORMAL_CONFIG);
  for (const SnmpLine& line : agent->access_) {
    // Not to be stored, as its line makes it at every start.
    if (usmUser* user = userMadeBy(line)) user->userStorageType = ST_READONLY;
  }
  return 0;
}

void SnmpAgent::apply(const std::vector<SnmpLine>& lines, int when) {
  for (const SnmpLine& line : lines) {
    // A user that stays keeps its keys, which take milliseconds to compute.
    if (userMadeBy(line) != nullptr && contains(before_, line)) continue;
    reading_ = &line;
    const config_line* reader = readerOf(line.word);
    std::string rest = line.rest;
    if (reader == nullptr && when == NORMAL_CONFIG) {
      told(0, "this net-snmp does not know it");
    } else if (reader != nullptr && reader->config_time == when) {
      // With net-snmp's spelling, as some readers compare case.
      reader->parse_line(reader->config_token, rest.data());
    }
    reading_ = nullptr;
  }
}

void SnmpAgent::told(int level, std::string text) {
  if (reading_ != nullptr) {
    text = fmt::format("{}: {}: {}", reading_->where, reading_->word, withoutPosition(text));
    if (level == 0 && lineError_.empty()) lineError_ = text;
  } else if (level == 0 && firstError_.empty()) {
    firstError_ = text;
  }
  if (!pump_) {
    held_.emplace_back(level, std::move(text));
  } else if (reading_ == nullptr || level > 0) {
    traceHandle.trace({"", text}, level, "{}", text);
  }
}

int SnmpAgent::logged(int /*major*/, int /*minor*/, void* message, void* self) {
  const auto* entry = static_cast<const snmp_log_message*>(message);
  std::string text = onOneLine(entry->msg);
  if (!text.empty()) static_cast<SnmpAgent*>(self)->told(levelOf(entry->priority), std::move(text));
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
