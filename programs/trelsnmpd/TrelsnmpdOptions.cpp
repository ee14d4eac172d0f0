#include "programs/trelsnmpd/TrelsnmpdOptions.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <string_view>

#include "host/SnmpConf.h"
#include "host/TraceOptions.h"
#include "host/control/ControlProtocol.h"
#include "kelstore/Document.h"
#include "kelstore/etcd/AccessOptions.h"
#include "kelstore/etcd/Address.h"
#include "programs/trelsnmpd/MasterAddress.h"
#include "runtime/CommandLine.h"
#include "runtime/Directories.h"
#include "runtime/Errors.h"
#include "runtime/File.h"
#include "runtime/Hostname.h"
#include "runtime/Text.h"
#include "runtime/Version.h"

namespace Trelsnmpd {
namespace {

void check(const absl::Status& status) {
  if (!status.ok()) throw std::invalid_argument(Runtime::textOf(status));
}

constexpr const char* kProgram = "trelsnmpd";
constexpr const char* kConfigFile = "/etc/trel/trelsnmpd.json";
constexpr const char* kIndexFile = "/storage-indexes.json";

constexpr uint32_t kMaxHoldSeconds = 30 * 86'400;
constexpr uint32_t kMaxResyncSeconds = 86'400;
constexpr uint32_t kMaxGraceSeconds = 3'600;

constexpr const char* kDescription =
    "Serves the state of a switch cluster over SNMP: reachability, links and host resources of every "
    "member,\n"
    "as a standalone agent or as AgentX subagent of an existing snmpd.";

constexpr const char* kFooter =
    "Without options it serves this machine, as member 1 of a built-in example cluster, to this machine:\n"
    "  trelsnmpd &\n"
    "  snmpwalk -v2c -c public 127.0.0.1:1161 1.3.6.1.4.1\n"
    "The state directory, for SNMPv3 boot counts and storage indexes, is $STATE_DIRECTORY (systemd),\n"
    "/var/lib/trelsnmpd (root) or $XDG_STATE_HOME/trelsnmpd (~/.local/state/trelsnmpd); the runtime "
    "directory\n"
    "$RUNTIME_DIRECTORY (systemd), /run/trelsnmpd (root) or $XDG_RUNTIME_DIR. Exit status: 0 after SIGTERM "
    "or\n"
    "SIGINT, 2 for unusable arguments or configuration.";

constexpr Kelstore::Etcd::AccessKeys kAccessKeys = {"etcd-ca", "etcd-cert", "etcd-key", "etcd-credentials"};

void addStore(Runtime::Settings& settings, Kelstore::Etcd::FollowSettings& etcd) {
  settings.number({"hold", "SECONDS",
                   "Seconds for which what a lost store \"etcd:\" said last counts before it is stale"},
                  0U, kMaxHoldSeconds, etcd.holdSeconds);
  settings.choice(
      {"after-hold", "keep|clear", "Whether it is served on then, or withdrawn until the store is back"},
      {"keep", "clear"}, "keep", [&etcd](const std::string& text) { etcd.clearAfterHold = text == "clear"; });
  settings.number({"grace", "SECONDS",
                   "Seconds for which a member's rows stay after its lease in a store ended by itself"},
                  0U, kMaxGraceSeconds, etcd.graceSeconds);
  settings.number({"resync", "SECONDS",
                   "Seconds between two resyncs of a store, each of which reads everything anew and repairs "
                   "what differs"},
                  1U, kMaxResyncSeconds, etcd.resyncSeconds);
  Kelstore::Etcd::addAccess(settings, kAccessKeys, etcd.access);
}

std::string limitDefaults() {
  std::string defaults;
  const Kelstore::Limits limits;
  for (const Kelstore::LimitSpec& spec : Kelstore::allLimits()) {
    defaults += fmt::format("{}{}={}", defaults.empty() ? "" : ",", spec.name, limits.*spec.limit);
  }
  return defaults;
}

void addSources(Runtime::Settings& settings, Options& options) {
  settings.list(
      {"state", "SOURCE",
       "Where the cluster's state comes from: \"local\" (this machine's own figures, as those of the "
       "member that --member names), \"file:PATH\" (a JSON document, followed as it changes), "
       "\"etcd:HOST:PORT[,HOST:PORT...]/PREFIX\" (the keys of an etcd cluster below the prefix, "
       "followed as they change) or \"embedded\" (an example of three switches); later sources "
       "override earlier ones, but the storage mappings of \"local\" yield to all others (default: "
       "embedded, then local)"},
      options.states, checkSource);
  addStore(settings, options.etcd);
  settings.list({"limit", "NAME=NUMBER[,...]",
                 fmt::format("How much of what a source says is taken (default: {})", limitDefaults())},
                options.limitTexts, [](const std::string& text) {
                  Kelstore::Limits limits;
                  check(Kelstore::limitsAre(text, limits));
                });
  settings.number(
      {"member", "N",
       "Member id of this switch; also decides with which of a store's servers it begins (else by "
       "the host's name)"},
      uint8_t{0}, uint8_t{255}, options.member);
  settings.number(
      {"interval", "SECONDS", "Seconds between two looks of the source \"local\" at this machine"},
      Member::MachineFigures::kMinIntervalSeconds, Member::MachineFigures::kMaxIntervalSeconds,
      options.intervalSeconds);
  settings.text({"index-file", "PATH",
                 "Where the source \"local\" keeps the storage indexes of its mount points (default: "
                 "storage-indexes.json in the state directory)"},
                options.indexFile, Runtime::isPath);
}

// What the files say that the options name, as far as a start would refuse them.
void checkFiles(const Options& options, Runtime::Findings& findings) {
  Kelstore::Etcd::noteAccess(options.etcd.access, kAccessKeys, findings);
  if (options.toggles.empty()) return;
  absl::Status status = Runtime::File::open(options.toggles).status();
  if (!status.ok())
    findings.fault("toggles", fmt::format("{}: {}", options.toggles, Runtime::textOf(status)));
}

void complete(const Runtime::Settings& settings, Options& options, Runtime::Findings& findings) {
  // This machine is one member.
  if (std::count(options.states.begin(), options.states.end(), "local") > 1) {
    findings.fault("state", "found local twice, expected it once");
  }
  for (const char* other : {"listen", "conf"}) {
    if (options.snmp.agentx.empty() || !settings.isGiven(other)) continue;
    findings.fault("agentx", fmt::format("found it with {}, expected one of the two", other));
  }
  try {
    options.stateDirectory = Runtime::stateDirectory(kProgram);
    if (options.control.empty()) options.control = Control::defaultSocketPath();
  } catch (const std::invalid_argument& error) {
    findings.add({error.what()});
  }
  if (options.states.empty()) options.states = {"embedded", "local"};
  if (options.indexFile.empty()) options.indexFile = options.stateDirectory + kIndexFile;
  for (const std::string& text : options.limitTexts) Kelstore::limitsAre(text, options.limits).IgnoreError();
  options.etcd.place =
      settings.isGiven("member") ? options.member : std::hash<std::string>()(Runtime::hostname());
  options.atStart = settings.atStart();
}

// What only the running daemon would say.
void checkContent(const Options& options, Runtime::Findings& findings) {
  if (!options.snmp.conf.empty()) {
    findings.add(Host::readAccess(options.snmp.conf).errors);
  }
  for (const std::string& state : options.states) {
    if (!state.starts_with(kFileScheme)) continue;
    std::string path = state.substr(kFileScheme.size());
    absl::StatusOr<std::string> text = Runtime::readFile(path, options.limits.documentBytes);
    if (!text.ok()) {
      findings.fault("state", Runtime::textOf(text.status()));
      continue;
    }
    Kelstore::Document document = Kelstore::parseDocument(*text, options.limits);
    if (document.unusable) findings.add({path + *document.unusable});
    for (const auto& fault : document.faults) findings.add({fmt::format("{}: {}", path, fault.text)});
    for (const auto& warning : document.warnings) findings.add({fmt::format("{}: {}", path, warning)});
  }
}

}  // namespace

void checkListen(const std::string& address) {
  bool prefixed = address.starts_with("udp:") || address.starts_with("udp6:");
  std::string_view place(address);
  if (prefixed) place.remove_prefix(address.find(':') + 1);
  auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
  uint16_t port = 0;
  std::string_view digits = place.substr(place.rfind(':') + 1);
  auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), port);
  bool isPort = error == std::errc() && end == digits.data() + digits.size();
  bool named = isPort && place.find_first_of("/,@ ") == std::string_view::npos;
  if (named && (prefixed || isDigit(place.front()) || place.front() == '[')) return;
  throw std::invalid_argument(fmt::format("found {}, expected [udp:][ADDRESS:]PORT or udp6:[ADDRESS]:PORT",
                                          Runtime::inQuotes(address)));
}

void checkMaster(const std::string& address) {
  if (address == kAutoMaster || isMaster(address)) return;
  throw std::invalid_argument(
      fmt::format("found {}, expected auto, unix:/PATH, tcp:127.0.0.1:PORT or tcp6:[::1]:PORT",
                  Runtime::inQuotes(address)));
}

void checkSource(const std::string& source) {
  if (source == "local" || source == "embedded") return;
  if (source.starts_with(kFileScheme) && source.size() > kFileScheme.size()) return;
  if (source.starts_with(Kelstore::Etcd::kScheme)) {
    return check(Kelstore::Etcd::parseStore(source).status());
  }
  throw std::invalid_argument(
      fmt::format("found \"{}\", expected local, file:PATH, etcd:HOST:PORT/PREFIX or embedded", source));
}

Runtime::Settings settingsOf(Options& options) {
  Runtime::Settings settings;
  settings.list(
      {"listen", "ADDRESS",
       fmt::format("Where to serve SNMP over UDP, as udp:ADDRESS:PORT (default: {})", Host::kDefaultListen)},
      options.snmp.listen, checkListen);
  settings.text({"agentx", "ADDRESS",
                 "Connect to the master agent at this address instead of listening, such as "
                 "unix:/var/agentx/master; \"auto\" finds it"},
                options.snmp.agentx, checkMaster);
  settings.text({"conf", "FILE",
                 "File in snmpd.conf syntax: communities, SNMPv3 users, views (default: read-only community "
                 "\"public\" from loopback, limited to the served tables and \"system\")",
                 Runtime::Settings::Applies::atReload},
                options.snmp.conf, Runtime::isPath);
  addSources(settings, options);
  settings.text({"toggles", "FILE", "The TrelCore.json of feature toggles (default: none)"}, options.toggles,
                Runtime::isPath);
  settings.choice(
      {"trel-mode", "on|off", "Whether this switch is a member of a cluster; off ends the daemon"},
      {"on", "off"}, "on", [&options](const std::string& text) { options.trelMode = text == "on"; });
  settings.text(
      {"control", "PATH", "Unix socket for trelctl (default: trelsnmpd.sock in the runtime directory)"},
      options.control, Runtime::isPath);
  settings.text(
      {"user", "NAME", "Run as this user once the ports are bound; for root, where there is no systemd"},
      options.user);
  Host::addTraces(settings, options.log);
  return settings;
}

Runtime::Findings readOptions(const Runtime::Arguments& arguments, Options& options) {
  options.arguments = arguments;
  Runtime::Settings settings = settingsOf(options);
  Runtime::Findings findings = settings.read(arguments);
  complete(settings, options, findings);
  checkFiles(options, findings);
  return findings;
}

ParsedOptions parseOptions(int argc, const char* const* argv, const BecomeUser& becomeUser) {
  ParsedOptions parsed;
  Options& options = parsed.options;
  CLI::App app(kDescription, kProgram);
  app.footer(kFooter);
  app.set_version_flag("--version", std::string("trelsnmpd ") + Runtime::kVersion,
                       "Print the version and exit");
  bool check = false;
  app.add_flag("--check", check,
               "Say all that is wrong with the configuration and its files, and exit: 0 or 1");
  Runtime::Arguments arguments;
  settingsOf(options).describe(app, "--config", kConfigFile, arguments);
  parsed.exitCode = Runtime::parseCommandLine(app, argc, argv, [] {});
  if (parsed.exitCode >= 0) return parsed;
  Runtime::Findings findings = readOptions(arguments, options);
  if (becomeUser && !options.user.empty()) {
    try {
      becomeUser(options, check);
      options = {};
      findings = readOptions(arguments, options);
    } catch (const std::runtime_error& error) {
      findings.fault("user", error.what());
    }
  }
  // Once: a reload keeps the master.
  if (options.snmp.agentx == kAutoMaster) {
    MasterAddress master = findMaster();
    options.snmp.agentx = master.address;
    findings.warning("agentx", master.why);
  }
  if (check) {
    checkContent(options, findings);
    parsed.exitCode = Runtime::reported(findings);
  } else if (!findings.faults().empty()) {
    for (const std::string& fault : findings.faults()) Runtime::complain(kProgram, fault);
    parsed.exitCode = Runtime::kUnusable;
  }
  options.warnings = findings.warnings();
  return parsed;
}

}  // namespace Trelsnmpd
