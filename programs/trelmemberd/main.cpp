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

int publish(const Runtime::Arguments& arguments, const Member::Reading& reading, Runtime::Threads& threads) {
  // A write to a closed connection fails; it does not end the process.
  std::signal(SIGPIPE, SIG_IGN);
  Zavro::SystemClock clock;
  try {
    Host::TraceLog log("trelmemberd", reading.options.log);
    for (const std::string& warning : reading.findings.warnings()) {
      Member::traceHandle.trace(1, "{}", warning);
    }
    Member::Trelmemberd daemon(arguments, reading.options, log, clock, threads);
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
  Member::CommandLine line = Member::parseCommandLine(argc, argv);
  if (line.exitCode >= 0) return line.exitCode;

  Member::Reading reading = Member::readOptions(line.arguments);
  try {
    if (const std::string& user = reading.options.user; !user.empty()) {
      Runtime::OtherUser(user, CAP_NET_RAW).forGood(Runtime::OtherUser::Keep::capability);
      // As that user, who also reads it at a reload.
      reading = Member::readOptions(line.arguments);
    }
  } catch (const std::runtime_error& error) {
    reading.findings.fault("user", error.what());
  }
  if (line.check) {
    Member::noteDevices(reading);
    return Runtime::reported(reading.findings);
  }
  for (const std::string& fault : reading.findings.faults()) Runtime::complain("trelmemberd", fault);
  if (!reading.findings.faults().empty()) return Runtime::kUnusable;
  if (line.mappings) return printMappings(reading.options.config);

  Runtime::Threads threads;
  return threads.exitStatus(publish(line.arguments, reading, threads));
}
