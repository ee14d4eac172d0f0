// trelsnmpd.
#include <linux/capability.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
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
#include "runtime/OtherUser.h"

namespace {

bool isEtcd(const std::string& state) { return state.starts_with(Kelstore::Etcd::kScheme); }

// As the unit makes the directories.
std::optional<Runtime::OtherUser> userOf(const Trelsnmpd::Options& options) {
  if (options.user.empty()) return std::nullopt;
  std::string runtime = std::filesystem::absolute(options.control).parent_path();
  return std::optional<Runtime::OtherUser>(
      std::in_place, options.user, CAP_NET_BIND_SERVICE,
      std::vector<Runtime::OtherUser::Directory>{{options.stateDirectory, 0700}, {runtime, 0750}});
}

// Throws std::runtime_error, in one line, when the system refuses what it takes.
int serve(const Trelsnmpd::Options& options, const Kelstore::Etcd::Driver* etcd, Runtime::Threads& threads) {
  std::optional<Runtime::OtherUser> user = userOf(options);
  Host::TraceLog log("trelsnmpd", options.log);
  if (!options.toggles.empty()) Toggles::fileIs("TrelCore.json", options.toggles);
  Trel::trelModeIs(options.trelMode);

  Zavro::SystemClock clock;
  Trelsnmpd::Daemon daemon(options, etcd, log, clock, threads);
  if (!daemon.error().empty()) throw std::runtime_error(daemon.error());
  // All ports are bound.
  if (user) user->forGood(Runtime::OtherUser::Keep::nothing);
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
