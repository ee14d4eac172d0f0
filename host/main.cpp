// trelsnmpd.
#include <fmt/format.h>
#include <unistd.h>

#include <chrono>

#include "Daemon.h"
#include "EtcdSupport.h"
#include "Logging.h"
#include "Options.h"
#include "toggles/Toggles.h"
#include "trel/Mode.h"
#include "zavro/Clock.h"

namespace {

constexpr std::chrono::milliseconds kEndingPatience(500);

int serve(const Host::Options& options, const Host::EtcdSources& etcd, Host::Threads& threads) {
  Host::Logging logging("trelsnmpd", options.log);
  if (!options.toggles.empty()) Toggles::fileIs("TrelCore.json", options.toggles);
  Trel::trelModeIs(options.trelMode);

  Zavro::SystemClock clock;
  Host::Daemon daemon(options, &etcd, clock, threads);
  if (!daemon.error().empty()) {
    fmt::print(stderr, "trelsnmpd: {}\n", daemon.error());
    return 2;
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
  int status = serve(options, etcd, threads);
  // What is being written comes to its end; a file or a mount that hangs does not hold it up for long.
  if (threads.busyFor(kEndingPatience)) _exit(status);
  return status;
}
