// trelsnmpd.
#include <algorithm>
#include <csignal>
#include <optional>
#include <stdexcept>
#include <string>

#include "host/TraceLog.h"
#include "kelstore/etcd/Driver.h"
#include "platform/toggles/Toggles.h"
#include "platform/trel/Mode.h"
#include "platform/zavro/Clock.h"
#include "programs/trelsnmpd/Trelsnmpd.h"
#include "programs/trelsnmpd/TrelsnmpdOptions.h"
#include "runtime/CommandLine.h"
#include "runtime/EventLoop.h"

namespace {

bool isEtcd(const std::string& state) { return state.starts_with(Kelstore::Etcd::kScheme); }

// Throws std::runtime_error, in one line, when the system refuses what it takes.
int serve(const Trelsnmpd::Options& options, const Kelstore::Etcd::Driver* etcd, Runtime::Threads& threads) {
  Host::TraceLog log("trelsnmpd", options.log);
  if (!options.toggles.empty()) Toggles::fileIs("TrelCore.json", options.toggles);
  Trel::trelModeIs(options.trelMode);

  Zavro::SystemClock clock;
  Trelsnmpd::Daemon daemon(options, etcd, log, clock, threads);
  if (!daemon.error().empty()) throw std::runtime_error(daemon.error());
  daemon.run();
  return 0;
}

int served(const Trelsnmpd::Options& options, const Kelstore::Etcd::Driver* etcd, Runtime::Threads& threads) {
  try {
    return serve(options, etcd, threads);
  } catch (const std::runtime_error& error) {
    Runtime::complain("trelsnmpd", error.what());
    return Runtime::kUnusable;
  }
}

}  // namespace

int main(int argc, char** argv) {
  Runtime::openStandardStreams();
  Runtime::holdSignal(SIGHUP);
  auto [options, exitCode] = Trelsnmpd::parseOptions(argc, argv);
  if (exitCode >= 0) return exitCode;

  const Kelstore::Etcd::Driver* etcd = nullptr;
  try {
    if (std::any_of(options.states.begin(), options.states.end(), isEtcd)) etcd = &Kelstore::Etcd::driver();
  } catch (const std::runtime_error& error) {
    Runtime::complain("trelsnmpd", std::string("--state: ") + error.what());
    return Runtime::kUnusable;
  }
  Runtime::Threads threads;
  return threads.exitStatus(served(options, etcd, threads));
}
