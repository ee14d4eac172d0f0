// trelsnmpd.
#include <csignal>

#include "host/TraceLog.h"
#include "platform/toggles/Toggles.h"
#include "platform/trel/Mode.h"
#include "platform/zavro/Clock.h"
#include "programs/trelsnmpd/Daemon.h"
#include "programs/trelsnmpd/EtcdSupport.h"
#include "programs/trelsnmpd/Options.h"
#include "runtime/CommandLine.h"

namespace {

int serve(const Trelsnmpd::Options& options, const Trelsnmpd::EtcdSources& etcd, Runtime::Threads& threads) {
  Host::TraceLog log("trelsnmpd", options.log);
  if (!options.toggles.empty()) Toggles::fileIs("TrelCore.json", options.toggles);
  Trel::trelModeIs(options.trelMode);

  Zavro::SystemClock clock;
  Trelsnmpd::Daemon daemon(options, &etcd, log, clock, threads);
  if (!daemon.error().empty()) {
    Runtime::complain("trelsnmpd", daemon.error());
    return Runtime::kUnusable;
  }
  daemon.run();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Runtime::openStandardStreams();
  // Until there is something to reload.
  std::signal(SIGHUP, SIG_IGN);
  Trelsnmpd::EtcdSupport etcd;
  auto [options, exitCode] = Trelsnmpd::parseOptions(argc, argv, &etcd);
  if (exitCode >= 0) return exitCode;

  Runtime::Threads threads;
  return threads.exitStatus(serve(options, etcd, threads));
}
