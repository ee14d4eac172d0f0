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

// What a source that is a document begins with.
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
  Host::TraceOptions log;
};

// What the command line says. When the process is to end at once, exitCode is set and what is to be said has
// been written: help and version to standard output (0), what is wrong to standard error, in one line (2).
struct ParsedOptions {
  Options options;
  int exitCode = -1;  // -1: go on
};
ParsedOptions parseOptions(int argc, const char* const* argv);

// Throws std::invalid_argument unless it is a place for datagrams. A client that does not read its answers
// would keep the loop waiting, and net-snmp deletes the file that stands in the place of a Unix socket.
void checkListen(const std::string& address);

// Throws std::invalid_argument unless it is a place on this machine. net-snmp looks names up, and waits for a
// machine that does not answer, on the loop.
void checkMaster(const std::string& address);

// Throws std::invalid_argument unless it names a source.
void checkSource(const std::string& source);

}  // namespace Trelsnmpd
