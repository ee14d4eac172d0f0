// The command line of trelsnmpd.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "host/SnmpAgent.h"
#include "host/TraceLog.h"
#include "member/LocalSource.h"
#include "programs/trelsnmpd/Etcd.h"

namespace Trelsnmpd {

struct Options {
  Host::SnmpOptions snmp;
  // "local" (at most once), "embedded", "file:PATH" or "etcd:HOST:PORT[,HOST:PORT...]/PREFIX"; never empty.
  std::vector<std::string> states;
  EtcdOptions etcd;
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
// `etcd` is null in a program that does not have that source.
ParsedOptions parseOptions(int argc, const char* const* argv, const EtcdSources* etcd);

// Throws std::invalid_argument unless it names a source that this program has.
void checkSource(const std::string& source, const EtcdSources* etcd);

}  // namespace Trelsnmpd
