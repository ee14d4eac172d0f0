// The command line of trelsnmpd.
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

namespace Trelsnmpd {

// The prefix of a source that is a file.
inline constexpr std::string_view kFileScheme = "file:";

struct Options {
  Host::SnmpOptions snmp;
  // "local" (at most once), "embedded", "file:PATH" or "etcd:HOST:PORT[,HOST:PORT...]/PREFIX"; never empty.
  std::vector<std::string> states;
  Kelstore::Etcd::FollowSettings etcd;  // of every store; without its address and limits
  Kelstore::Limits limits;              // of what each source says
  uint8_t member = 1;
  uint32_t intervalSeconds = Member::MachineFigures::kDefaultIntervalSeconds;
  std::string stateDirectory;
  std::string indexFile;
  std::string toggles;  // empty: all toggles at their default
  bool trelMode = true;
  std::string control;
  std::string user;  // to run as; empty: as who started it
  Host::TraceOptions log;
};

struct ParsedOptions {
  Options options;
  int exitCode = -1;  // as Runtime::parseCommandLine() returns it: -1: go on
};
ParsedOptions parseOptions(int argc, const char* const* argv);

// Throws std::invalid_argument unless it is an address for UDP. A TCP client that does not read its answers
// would block the loop, and for a Unix socket net-snmp removes the file at its path.
void checkListen(const std::string& address);

// Throws std::invalid_argument unless it is an address on this machine. For others net-snmp would block the
// loop: it looks up names, and waits for a machine that does not answer.
void checkMaster(const std::string& address);

// Throws std::invalid_argument unless it names a source.
void checkSource(const std::string& source);

}  // namespace Trelsnmpd
