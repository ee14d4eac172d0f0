#include "programs/trelsnmpd/TrelsnmpdOptions.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <regex>
#include <string_view>

#include "host/Cluster.h"
#include "host/TraceOptions.h"
#include "host/control/ControlProtocol.h"
#include "kelstore/etcd/AccessFiles.h"
#include "kelstore/etcd/AccessOptions.h"
#include "kelstore/etcd/Address.h"
#include "runtime/CommandLine.h"
#include "runtime/Directories.h"
#include "runtime/Errors.h"
#include "runtime/File.h"
#include "runtime/Text.h"
#include "runtime/Version.h"

namespace Trelsnmpd {
namespace {

void check(const absl::Status& status) {
  if (!status.ok()) throw std::invalid_argument(Runtime::textOf(status));
}

constexpr const char* kProgram = "trelsnmpd";
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

std::string readable(const std::string& path) {
  absl::Status status = Runtime::File::open(path).status();
  return status.ok() ? "" : fmt::format("{}: {}", path, Runtime::textOf(status));
}

void describeLimits(CLI::App& app, Kelstore::Limits& limits) {
  std::string defaults;
  for (const Kelstore::LimitSpec& spec : Kelstore::allLimits()) {
    defaults += fmt::format("{}{}={}", defaults.empty() ? "" : ",", spec.name, limits.*spec.limit);
  }
  app.add_option_function<std::string>(
         "--limit",
         [&limits](const std::string& text) {
           absl::Status status = Kelstore::limitsAre(text, limits);
           if (!status.ok()) throw CLI::ValidationError("--limit", Runtime::textOf(status));
         },
         fmt::format("How much of what a source says is taken (default: {})", defaults))
      ->type_name("NAME=NUMBER[,...]");
}

void describeEtcd(CLI::App& app, Kelstore::Etcd::FollowSettings& options) {
  app.add_option(
         "--hold", options.holdSeconds,
         fmt::format("Seconds for which what a lost store \"etcd:\" said last counts before it is stale, "
                     "0 to {} (default: {})",
                     kMaxHoldSeconds, options.holdSeconds))
      ->type_name("SECONDS")
      ->check(CLI::Range(0U, kMaxHoldSeconds).description(""));
  app.add_option_function<std::string>(
         "--after-hold", [&options](const std::string& text) { options.clearAfterHold = text == "clear"; },
         "Whether it is served on then, or withdrawn until the store is back (default: keep)")
      ->type_name("keep|clear")
      ->check(Runtime::checking([](const std::string& text) {
        Runtime::oneOf(text, {"keep", "clear"});
      }));
  app.add_option("--grace", options.graceSeconds,
                 fmt::format("Seconds for which a member's rows stay after its lease in a store ended by "
                             "itself, 0 to {} (default: {})",
                             kMaxGraceSeconds, options.graceSeconds))
      ->type_name("SECONDS")
      ->check(CLI::Range(0U, kMaxGraceSeconds).description(""));
  app.add_option(
         "--resync", options.resyncSeconds,
         fmt::format("Seconds between two resyncs of a store, each of which reads everything anew and "
                     "repairs what differs, 1 to {} (default: {})",
                     kMaxResyncSeconds, options.resyncSeconds))
      ->type_name("SECONDS")
      ->check(CLI::Range(1U, kMaxResyncSeconds).description(""));
  Kelstore::Etcd::describeAccess(app, options.access);
}

void describe(CLI::App& app, Options& options) {
  app.set_version_flag("--version", std::string("trelsnmpd ") + Runtime::kVersion,
                       "Print the version and exit");
  auto* listen = app.add_option(
      "--listen", options.snmp.listen,
      fmt::format("Where to serve SNMP over UDP, as udp:ADDRESS:PORT (default: {}); repeatable",
                  Host::kDefaultListen));
  listen->type_name("ADDRESS")->allow_extra_args(false)->check(Runtime::checking(checkListen));
  app.add_option("--agentx", options.snmp.agentx,
                 "Connect to the master agent at this address instead of listening, such as "
                 "unix:/var/agentx/master")
      ->type_name("ADDRESS")
      ->check(Runtime::checking(checkMaster))
      ->excludes(listen);
  app.add_option("--conf", options.snmp.conf,
                 "File in snmpd.conf syntax: communities, SNMPv3 users, views (default: read-only community "
                 "\"public\" from loopback, limited to the served tables and \"system\")")
      ->type_name("FILE")
      ->excludes("--agentx");
  app.add_option(
         "--state", options.states,
         "Where the cluster's state comes from: \"local\" (this machine's own figures, as those of "
         "the member that --member names), \"file:PATH\" (a JSON document, followed as it changes), "
         "\"etcd:HOST:PORT[,HOST:PORT...]/PREFIX\" (the keys of an etcd cluster below the prefix, followed "
         "as they change) or \"embedded\" (an example of three switches); repeatable, later sources override "
         "earlier ones, but the storage mappings of \"local\" yield to all others (default: embedded, "
         "then local)")
      ->type_name("SOURCE")
      ->allow_extra_args(false)
      ->check(Runtime::checking(checkSource));
  describeEtcd(app, options.etcd);
  describeLimits(app, options.limits);
  app.add_option("--member", options.member,
                 "Member id of this switch (default: 1); also decides with which of a store's servers it "
                 "begins (default: by the host's name)")
      ->type_name("N")
      ->check(CLI::Range(0, 255));
  app.add_option(
         "--interval", options.intervalSeconds,
         fmt::format("Seconds between two looks of the source \"local\" at this machine, {} to {} "
                     "(default: {})",
                     Member::MachineFigures::kMinIntervalSeconds, Member::MachineFigures::kMaxIntervalSeconds,
                     Member::MachineFigures::kDefaultIntervalSeconds))
      ->type_name("SECONDS")
      ->check(
          CLI::Range(Member::MachineFigures::kMinIntervalSeconds, Member::MachineFigures::kMaxIntervalSeconds)
              .description(""));
  app.add_option("--index-file", options.indexFile,
                 "Where the source \"local\" keeps the storage indexes of its mount points (default: "
                 "storage-indexes.json in the state directory)")
      ->type_name("PATH")
      ->check(Runtime::checking([](const std::string& path) {
        if (path.empty()) throw std::invalid_argument("found nothing, expected a path");
      }));
  app.add_option("--toggles", options.toggles, "The TrelCore.json of feature toggles (default: none)")
      ->type_name("FILE")
      ->check(CLI::Validator([](std::string& path) { return readable(path); }, ""));
  app.add_option_function<std::string>(
         "--trel-mode", [&options](const std::string& text) { options.trelMode = text == "on"; },
         "Whether this switch is a member of a cluster; off ends the daemon (default: on)")
      ->type_name("on|off")
      ->check(Runtime::checking([](const std::string& text) {
        Runtime::oneOf(text, {"on", "off"});
      }));
  app.add_option("--control", options.control,
                 "Unix socket for trelctl (default: trelsnmpd.sock in the runtime directory)")
      ->type_name("PATH");
  Runtime::addTextOption(app, "--user", options.user,
                         "Run as this user once the ports are bound; for root, where there is no systemd",
                         "NAME");
  Host::describeTraces(app, options.log);
}

}  // namespace

void checkListen(const std::string& address) {
  bool prefixed = address.starts_with("udp:") || address.starts_with("udp6:");
  std::string_view place(address);
  if (prefixed) place.remove_prefix(address.find(':') + 1);
  auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
  bool named = !place.empty() && place.find_first_of("/,@ ") == std::string_view::npos;
  if (named && (prefixed || isDigit(place.front()) || place.front() == '[')) return;
  throw std::invalid_argument(fmt::format("found {}, expected [udp:][ADDRESS:]PORT or udp6:[ADDRESS]:PORT",
                                          Runtime::inQuotes(address)));
}

void checkMaster(const std::string& address) {
  static const std::regex here(R"((unix:)?/.+|tcp:127(\.[0-9]{1,3}){3}:[0-9]{1,5}|tcp6:\[::1\]:[0-9]{1,5})");
  if (std::regex_match(address, here)) return;
  throw std::invalid_argument(fmt::format(
      "found {}, expected unix:/PATH, tcp:127.0.0.1:PORT or tcp6:[::1]:PORT", Runtime::inQuotes(address)));
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

ParsedOptions parseOptions(int argc, const char* const* argv) {
  ParsedOptions parsed;
  Options& options = parsed.options;
  CLI::App app(kDescription, kProgram);
  app.footer(kFooter);
  describe(app, options);
  parsed.exitCode = Runtime::parseCommandLine(app, argc, argv, [&options, &app] {
    // This machine is one member.
    if (std::count(options.states.begin(), options.states.end(), "local") > 1) {
      throw CLI::ValidationError("--state", "found local twice, expected it once");
    }
    try {
      options.stateDirectory = Runtime::stateDirectory(kProgram);
      if (options.control.empty()) options.control = Control::defaultSocketPath();
      options.etcd.place =
          app.count("--member") != 0 ? options.member : std::hash<std::string>()(Host::hostname());
      check(Kelstore::Etcd::checkAccess(options.etcd.access));
    } catch (const std::invalid_argument& error) {
      throw CLI::ValidationError(error.what());
    }
  });
  if (options.states.empty()) options.states = {"embedded", "local"};
  if (options.indexFile.empty()) options.indexFile = options.stateDirectory + kIndexFile;
  return parsed;
}

}  // namespace Trelsnmpd
