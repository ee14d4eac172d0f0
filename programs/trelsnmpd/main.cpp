// trelsnmpd.
#include <linux/capability.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
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

// As the unit makes them.
std::vector<Runtime::OtherUser::Directory> directoriesOf(const Trelsnmpd::Options& options) {
  return {{options.stateDirectory, 0700}, {std::filesystem::absolute(options.control).parent_path(), 0750}};
}

// Throws std::runtime_error, in one line, when the system refuses what it takes.
// user: as which the process runs, and is to go on for good; null: as who started it.
int serve(const Trelsnmpd::Options& options, const Runtime::OtherUser* user,
          const Kelstore::Etcd::Driver* etcd, Runtime::Threads& threads) {
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

int served(const Trelsnmpd::Options& options, const Runtime::OtherUser* user,
           const Kelstore::Etcd::Driver* etcd, Runtime::Threads& threads) {
  try {
    return serve(options, user, etcd, threads);
  } catch (const std::runtime_error& error) {
    Runtime::complain("trelsnmpd", error.what());
    return Runtime::kUnusable;
  }
}

}  // namespace

int main(int argc, char** argv) {
  Runtime::openStandardStreams();
  Runtime::holdSignal(SIGHUP);
  std::optional<Runtime::OtherUser> user;
  auto become = [&user](const Trelsnmpd::Options& options, bool onlyChecks) {
    using Directories = std::vector<Runtime::OtherUser::Directory>;
    // The user would look for directories of its own.
    setenv("STATE_DIRECTORY", options.stateDirectory.c_str(), /*overwrite=*/0);
    std::string runtime = std::filesystem::absolute(options.control).parent_path();
    setenv("RUNTIME_DIRECTORY", runtime.c_str(), /*overwrite=*/0);
    user.emplace(options.user, CAP_NET_BIND_SERVICE, onlyChecks ? Directories() : directoriesOf(options));
  };
  auto [options, exitCode] = Trelsnmpd::parseOptions(argc, argv, become);
  if (exitCode >= 0) return exitCode;

  const Kelstore::Etcd::Driver* etcd = nullptr;
  try {
    if (std::any_of(options.states.begin(), options.states.end(), isEtcd)) etcd = &Kelstore::Etcd::driver();
  } catch (const std::runtime_error& error) {
    Runtime::complain("trelsnmpd", std::string("--state: ") + error.what());
    return Runtime::kUnusable;
  }
  Runtime::Threads threads;
  return threads.exitStatus(served(options, user ? &*user : nullptr, etcd, threads));
}
