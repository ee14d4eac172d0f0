#include "programs/trelmemberd/TrelmemberdOptions.h"

#include <CLI/CLI.hpp>

#include "host/TraceOptions.h"
#include "runtime/CommandLine.h"
#include "runtime/Version.h"

namespace Member {
namespace {

constexpr const char* kDescription =
    "Publishes this machine, as one member of a switch cluster, in the cluster's store (etcd): its figures, "
    "its\n"
    "backplane interfaces, its links, and whether it reaches its neighbours. All of it goes when this ends.";

constexpr const char* kFooter =
    "The configuration is described in trelmemberd(8). Echoes to neighbours take CAP_NET_RAW; without it "
    "their\n"
    "state is \"unknown\" while there is carrier. Exit status: 0 after SIGTERM or SIGINT, 2 for unusable\n"
    "arguments or configuration.";

}  // namespace

ParsedOptions parseOptions(int argc, const char* const* argv) {
  ParsedOptions parsed;
  Options& options = parsed.options;
  CLI::App app(kDescription, "trelmemberd");
  app.footer(kFooter);
  app.set_version_flag("--version", std::string("trelmemberd ") + Runtime::kVersion,
                       "Print the version and exit");
  app.add_option("--config,FILE", options.config, "The configuration, a JSON file")
      ->type_name("FILE")
      ->required();
  auto* check = app.add_flag("--check", options.check, "Say what is wrong with the configuration, and exit");
  app.add_flag("--mappings", options.mappings,
               "Print the storage mappings that this machine suggests, for trelctl import, and exit")
      ->excludes(check);
  app.add_flag(
      "--handover", options.handover,
      "Leave the rows to a successor at the end, for as long as the lease lasts, instead of deleting them");
  Runtime::addTextOption(app, "--user", options.user,
                         "Run as this user, with CAP_NET_RAW; for root, where there is no systemd", "NAME");
  Host::describeTraces(app, options.log);
  parsed.exitCode = Runtime::parseCommandLine(app, argc, argv, [] {});
  return parsed;
}

}  // namespace Member
