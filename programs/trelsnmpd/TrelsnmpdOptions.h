// What can be set of trelsnmpd: on the command line and in its configuration.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "host/SnmpAgent.h"
#include "host/TraceLog.h"
#include "kelstore/Limits.h"
#include "kelstore/etcd/FollowSettings.h"
#include "member/LocalSource.h"
#include "runtime/Settings.h"

namespace Trelsnmpd {

// The prefix of a source that is a file.
inline constexpr std::string_view kFileScheme = "file:";

struct Options {
  Host::SnmpOptions snmp;
  // "local" (at most once), "embedded", "file:PATH" or "etcd:HOST:PORT[,HOST:PORT...]/PREFIX"; never empty.
  std::vector<std::string> states;
  Kelstore::Etcd::FollowSettings etcd;  // of every store; without its address and limits
  Kelstore::Limits limits;              // of what each source says
  std::vector<std::string> limitTexts;  // the same as they were given
  uint8_t member = 1;
  uint32_t intervalSeconds = Member::MachineFigures::kDefaultIntervalSeconds;
  std::string stateDirectory;
  std::string indexFile;
  std::string toggles;  // empty: all toggles at their default
  bool trelMode = true;
  std::string control;
  std::string user;  // to run as; empty: as who started it
  Host::TraceOptions log;
  std::vector<std::string> warnings;   // found in them, a line each
  Runtime::Arguments arguments;        // from which these are
  Runtime::Settings::AtStart atStart;  // to see what a reload does not apply
};

// The table of all settings, for `options`, which it sets when it is read.
Runtime::Settings settingsOf(Options& options);

// Sets the options that the arguments and their file give, and checks the files that are needed at once.
// Blocks. The options, which were made anew, are usable if there are no faults.
Runtime::Findings readOptions(const Runtime::Arguments& arguments, Options& options);

struct ParsedOptions {
  Options options;
  int exitCode = -1;  // as Runtime::parseCommandLine() returns it: -1: go on
};
// Reads the configuration, too, and prints what is wrong.
// becomeUser: has the process run as `options.user`, who then reads all that is read here, as at a reload;
// throws std::runtime_error. Nothing: the options are read by who calls this.
using BecomeUser = std::function<void(const Options& options, bool onlyChecks)>;
ParsedOptions parseOptions(int argc, const char* const* argv, const BecomeUser& becomeUser = {});

// Throws std::invalid_argument unless it is an address for UDP. A TCP client that does not read its answers
// would block the loop, and for a Unix socket net-snmp removes the file at its path.
void checkListen(const std::string& address);

// Throws std::invalid_argument unless it is kAutoMaster or isMaster().
void checkMaster(const std::string& address);

// Throws std::invalid_argument unless it names a source.
void checkSource(const std::string& source);

}  // namespace Trelsnmpd
