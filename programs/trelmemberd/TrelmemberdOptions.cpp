#include "programs/trelmemberd/TrelmemberdOptions.h"

#include <fmt/format.h>
#include <net/if.h>

#include <CLI/CLI.hpp>

#include "host/TraceOptions.h"
#include "kelstore/etcd/AccessOptions.h"
#include "kelstore/etcd/Address.h"
#include "member/SharedIndexes.h"
#include "runtime/CommandLine.h"
#include "runtime/Version.h"

namespace Member {
namespace {

namespace Etcd = Kelstore::Etcd;

constexpr const char* kConfigFile = "/etc/trel/trelmemberd.json";

constexpr const char* kDescription =
    "Publishes this machine, as one member of a switch cluster, in the cluster's store (etcd): its figures, "
    "its\n"
    "backplane interfaces, its links, and whether it reaches its neighbours. All of it goes when this ends.";

constexpr const char* kFooter =
    "The configuration is described in trelmemberd(8). Echoes to neighbours take CAP_NET_RAW; without it "
    "their\n"
    "state is \"unknown\" while there is carrier. Exit status: 0 after SIGTERM or SIGINT, 2 for unusable\n"
    "arguments or configuration.";

// What figures change proves that writes work; what is later than the proof is due is a write beside it.
void noteFiguresInterval(const Config& config, Runtime::Findings& findings) {
  uint32_t due = config.ttlSeconds * 2 / 3;
  if (config.figuresIntervalSeconds < due || due <= 1) return;
  findings.warning(
      "figuresInterval",
      fmt::format("{} s is no less than two thirds of ttl ({} s), so that each look takes another "
                  "write; set it to {} at most, or ttl to {} at least",
                  config.figuresIntervalSeconds, config.ttlSeconds, due - 1,
                  config.figuresIntervalSeconds * 3 / 2 + 2));
}

}  // namespace

Runtime::Settings settingsOf(Options& options) {
  Runtime::Settings settings;
  addConfig(settings, options.config,
            [](const std::string& store) { return Etcd::parseStore(store).status(); });
  settings.flag({"handover", "",
                 "Leave the rows to a successor at the end, for as long as the lease lasts, instead of "
                 "deleting them"},
                options.handover);
  settings.text({"user", "NAME", "Run as this user, with CAP_NET_RAW; for root, where there is no systemd"},
                options.user);
  Host::addTraces(settings, options.log);
  return settings;
}

Reading readOptions(const Runtime::Arguments& arguments) {
  Options options;
  Runtime::Settings settings = settingsOf(options);
  Runtime::Findings findings = settings.read(arguments);
  options.atStart = settings.atStart();
  Etcd::noteAccess(options.config.access, kAccessKeys, findings);
  noteFiguresInterval(options.config, findings);
  return {std::move(options), std::move(findings)};
}

void noteDevices(Reading& reading) {
  auto indexOf = [](const std::string& device) { return if_nametoindex(device.c_str()); };
  for (const std::string& line : sharedIndexes(publishedIndexes(reading.options.config, indexOf))) {
    reading.findings.warning("neighbours", line);
  }
}

CommandLine parseCommandLine(int argc, const char* const* argv) {
  CommandLine parsed;
  CLI::App app(kDescription, "trelmemberd");
  app.footer(kFooter);
  app.set_version_flag("--version", std::string("trelmemberd ") + Runtime::kVersion,
                       "Print the version and exit");
  auto* check =
      app.add_flag("--check", parsed.check, "Say all that is wrong with what is set, and exit: 0 or 1");
  app.add_flag("--mappings", parsed.mappings,
               "Print the storage mappings that this machine suggests, for trelctl import, and exit")
      ->excludes(check);
  Options defaults;
  settingsOf(defaults).describe(app, "--config,FILE", kConfigFile, parsed.arguments);
  parsed.exitCode = Runtime::parseCommandLine(app, argc, argv, [] {});
  return parsed;
}

}  // namespace Member
