// trelmemberd.
#include <fmt/format.h>
#include <linux/capability.h>

#include <csignal>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "host/TraceLog.h"
#include "kelstore/Document.h"
#include "member/LinuxMachine.h"
#include "member/SuggestedMappings.h"
#include "member/Trace.h"
#include "platform/zavro/Clock.h"
#include "programs/trelmemberd/Trelmemberd.h"
#include "programs/trelmemberd/TrelmemberdOptions.h"
#include "runtime/CommandLine.h"
#include "runtime/Errors.h"
#include "runtime/EventLoop.h"
#include "runtime/OtherUser.h"

namespace {

int publish(const Member::Options& options, const Member::ParsedConfig& parsed, Runtime::Threads& threads) {
  // A write to a closed connection fails; it does not end the process.
  std::signal(SIGPIPE, SIG_IGN);
  Zavro::SystemClock clock;
  try {
    Host::TraceLog log("trelmemberd", options.log);
    for (const std::string& warning : parsed.warnings) Member::traceHandle.trace(1, "{}", warning);
    Member::Trelmemberd daemon(options.config, parsed.config, options.handover, log, clock, threads);
    daemon.run();
  } catch (const std::runtime_error& error) {
    Runtime::complain("trelmemberd", error.what());
    return Runtime::kUnusable;
  }
  return 0;
}

int printMappings(const Member::Config& config) {
  Zavro::SystemClock clock;
  auto suggested =
      Member::suggestedMappings(std::make_shared<Member::LinuxMachine>(), config.indexFile, clock);
  if (!suggested.ok()) {
    Runtime::complain("trelmemberd", Runtime::textOf(suggested.status()));
    return Runtime::kUnusable;
  }
  fmt::print("{}\n", Kelstore::documentOf(*suggested).dump(2));
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Runtime::openStandardStreams();
  Runtime::holdSignal(SIGHUP);
  auto [options, exitCode] = Member::parseOptions(argc, argv);
  if (exitCode >= 0) return exitCode;

  // It sees what it is configured with as that user, too.
  try {
    if (!options.user.empty()) {
      Runtime::OtherUser(options.user, CAP_NET_RAW).forGood(Runtime::OtherUser::Keep::capability);
    }
  } catch (const std::runtime_error& error) {
    Runtime::complain("trelmemberd", error.what());
    return Runtime::kUnusable;
  }

  Member::ParsedConfig parsed = Member::usableConfig(options.config);
  for (const std::string& error : parsed.errors) Runtime::complain("trelmemberd", error);
  if (options.check) {
    for (const std::string& warning : parsed.warnings) Runtime::complain("trelmemberd", warning);
  }
  if (!parsed.errors.empty()) return Runtime::kUnusable;
  if (options.check) return 0;
  if (options.mappings) return printMappings(parsed.config);

  Runtime::Threads threads;
  return threads.exitStatus(publish(options, parsed, threads));
}
