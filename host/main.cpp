// trelsnmpd.
#include <fmt/format.h>

#include "Daemon.h"
#include "EtcdSupport.h"
#include "ExitStatus.h"
#include "Logging.h"
#include "Options.h"
#include "toggles/Toggles.h"
#include "trel/Mode.h"
#include "zavro/Clock.h"

namespace {

int serve(const Host::Options& options, const Host::EtcdSources& etcd, Host::Threads& threads) {
  Host::Logging logging("trelsnmpd", options.log);
  if (!options.toggles.empty()) Toggles::fileIs("TrelCore.json", options.toggles);
  Trel::trelModeIs(options.trelMode);

  Zavro::SystemClock clock;
  Host::Daemon daemon(options, &etcd, clock, threads);
  if (!daemon.error().empty()) {
    fmt::print(stderr, "trelsnmpd: {}\n", daemon.error());
    return Host::kUnusable;
  }
  daemon.run();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Host::EtcdSupport etcd;
  auto [options, exitCode] = Host::parseOptions(argc, argv, &etcd);
  if (exitCode >= 0) return exitCode;

  Host::Threads threads;
  return threads.exitStatus(serve(options, etcd, threads));
}
