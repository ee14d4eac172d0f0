#include "Options.h"

#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <cstring>

#include "ControlProtocol.h"
#include "StateDirectory.h"
#include "lumalog/Lumalog.h"

namespace Host {
namespace {

constexpr int kUnusable = 2;
constexpr const char* kIndexFile = "/storage-indexes.json";

constexpr const char* kDescription =
    "Serves the state of a switch cluster over SNMP: reachability, links and host resources of every "
    "member,\n"
    "as a standalone agent or as AgentX subagent of an existing snmpd.";

constexpr const char* kFooter =
    "Without options it serves this machine, as member 1 of a built-in example cluster, to this machine:\n"
    "  trelsnmpd &\n"
    "  snmpwalk -v2c -c public 127.0.0.1:1161 1.3.6.1.4.1\n"
    "SNMPv3 boot counts and storage indexes are kept in $STATE_DIRECTORY (systemd), /var/lib/trelsnmpd "
    "(root) or\n"
    "$XDG_STATE_HOME/trelsnmpd (~/.local/state/trelsnmpd). Exit status: 0 after SIGTERM or SIGINT, 2 for\n"
    "unusable arguments or configuration.";

// CLI11 reports what a check throws as the option's error.
template <class Check>
CLI::Validator checking(Check check) {
  return CLI::Validator(
      [check](std::string& text) {
        try {
          check(text);
        } catch (const std::invalid_argument& error) {
          return std::string(error.what());
        }
        return std::string();
      },
      "");
}

std::string readable(const std::string& path) {
  return access(path.c_str(), R_OK) == 0 ? "" : fmt::format("{}: {}", path, std::strerror(errno));
}

void oneOf(const std::string& text, const std::vector<std::string>& choices) {
  if (std::find(choices.begin(), choices.end(), text) != choices.end()) return;
  throw std::invalid_argument(fmt::format("found \"{}\", expected {}", text, fmt::join(choices, ", ")));
}

LogTo logNamed(const std::string& name) {
  if (name == "syslog") return LogTo::syslog;
  return name == "journal" ? LogTo::journal : LogTo::standardError;
}

void describe(CLI::App& app, Options& options, std::vector<std::string>& traces) {
  app.set_version_flag("--version", "trelsnmpd " TREL_VERSION, "Print the version and exit");
  auto* listen = app.add_option(
      "--listen", options.snmp.listen,
      fmt::format("Transport address to serve SNMP at (default: {}); repeatable", kDefaultListen));
  listen->type_name("ADDRESS")->allow_extra_args(false);
  app.add_option("--agentx", options.snmp.agentx,
                 "Connect to the master agent at this address instead of listening, such as "
                 "unix:/run/agentx/master")
      ->type_name("ADDRESS")
      ->excludes(listen);
  app.add_option("--conf", options.snmp.conf,
                 "File in snmpd.conf syntax: communities, SNMPv3 users, views (default: read-only community "
                 "\"public\" from loopback, limited to the served tables and \"system\")")
      ->type_name("FILE");
  app.add_option(
         "--state", options.states,
         "Where the cluster's state comes from: \"local\" (this machine's own figures, as those of "
         "the member that --member names), \"file:PATH\" (a JSON document, followed as it changes) "
         "or \"embedded\" (an example of three switches); repeatable, later sources override "
         "earlier ones, but the storage mappings of \"local\" yield to all others (default: embedded, "
         "then local). This build does not have the source "
         "\"etcd:\"")
      ->type_name("SOURCE")
      ->allow_extra_args(false)
      ->check(checking(checkSource));
  app.add_option("--member", options.member, "Member id of this switch (default: 1)")
      ->type_name("N")
      ->check(CLI::Range(0, 255));
  app.add_option(
         "--interval", options.intervalSeconds,
         fmt::format("Seconds between two looks of the source \"local\" at this machine, {} to {} "
                     "(default: {})",
                     Member::LocalSource::kMinIntervalSeconds, Member::LocalSource::kMaxIntervalSeconds,
                     Member::LocalSource::kDefaultIntervalSeconds))
      ->type_name("SECONDS")
      ->check(CLI::Range(Member::LocalSource::kMinIntervalSeconds, Member::LocalSource::kMaxIntervalSeconds)
                  .description(""));
  app.add_option("--index-file", options.indexFile,
                 fmt::format("Where the source \"local\" keeps the storage indexes of its mount points "
                             "(default: {})",
                             options.indexFile))
      ->type_name("PATH")
      ->check(checking([](const std::string& path) {
        if (path.empty()) throw std::invalid_argument("found nothing, expected a path");
      }));
  app.add_option("--toggles", options.toggles, "The TrelCore.json of feature toggles (default: none)")
      ->type_name("FILE")
      ->check(CLI::Validator([](std::string& path) { return readable(path); }, ""));
  app.add_option_function<std::string>(
         "--trel-mode", [&options](const std::string& text) { options.trelMode = text == "on"; },
         "Whether this switch is a member of a cluster; off ends the daemon (default: on)")
      ->type_name("on|off")
      ->check(checking([](const std::string& text) {
        oneOf(text, {"on", "off"});
      }));
  app.add_option("--control", options.control,
                 fmt::format("Unix socket for trelctl (default: {})", options.control))
      ->type_name("PATH");
  app.add_option("--trace", traces,
                 fmt::format("Trace levels, 0 to {}, by trace handle; the handle * means every other one",
                             Lumalog::kMaxLevel))
      ->type_name("HANDLE/LEVEL[,...]")
      ->allow_extra_args(false)
      ->check(checking([](const std::string& text) { parseTraces(text); }));
  app.add_option_function<std::string>(
         "--log", [&options](const std::string& text) { options.log = logNamed(text); },
         "Where log lines go (default: stderr)")
      ->type_name("stderr|syslog|journal")
      ->check(checking([](const std::string& text) {
        oneOf(text, {"stderr", "syslog", "journal"});
      }));
}

std::string firstLine(const std::string& text) { return text.substr(0, text.find('\n')); }

}  // namespace

std::vector<std::pair<std::string, int>> parseTraces(const std::string& text) {
  std::vector<std::pair<std::string, int>> traces;
  size_t at = 0;
  while (at <= text.size()) {
    size_t comma = std::min(text.find(',', at), text.size());
    std::string item = text.substr(at, comma - at);
    at = comma + 1;
    size_t slash = item.rfind('/');
    int level = -1;
    const char* end = item.data() + item.size();
    const char* digits = slash == std::string::npos ? end : item.data() + slash + 1;
    auto [after, error] = std::from_chars(digits, end, level);
    bool good =
        slash != 0 && error == std::errc() && after == end && level >= 0 && level <= Lumalog::kMaxLevel;
    if (!good) {
      throw std::invalid_argument(fmt::format("found \"{}\", expected HANDLE/LEVEL with a level of 0 to {}",
                                              item, Lumalog::kMaxLevel));
    }
    traces.emplace_back(item.substr(0, slash), level);
  }
  return traces;
}

void checkSource(const std::string& source) {
  constexpr std::string_view kFile = "file:";
  if (source == "local" || source == "embedded") return;
  if (source.starts_with(kFile) && source.size() > kFile.size()) return;
  if (source.starts_with("etcd:"))
    throw std::invalid_argument("this build does not have the source \"etcd\"");
  throw std::invalid_argument(fmt::format("found \"{}\", expected local, file:PATH or embedded", source));
}

ParsedOptions parseOptions(int argc, const char* const* argv) {
  ParsedOptions parsed;
  Options& options = parsed.options;
  options.control = Control::defaultSocketPath();
  options.indexFile = stateDirectory() + kIndexFile;
  std::vector<std::string> traces;
  CLI::App app(kDescription, "trelsnmpd");
  app.footer(kFooter);
  describe(app, options, traces);
  try {
    app.parse(argc, argv);
    // It is one machine, as one member.
    if (std::count(options.states.begin(), options.states.end(), "local") > 1) {
      throw CLI::ValidationError("--state", "found local twice, expected it once");
    }
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) {
      parsed.exitCode = app.exit(error);
    } else {
      fmt::print(stderr, "trelsnmpd: {}\n", firstLine(error.what()));
      parsed.exitCode = kUnusable;
    }
    return parsed;
  }
  if (options.states.empty()) options.states = {"embedded", "local"};
  for (const std::string& text : traces) {
    for (auto& trace : parseTraces(text)) options.traces.push_back(std::move(trace));
  }
  return parsed;
}

}  // namespace Host
