// The command line of trelsnmpd.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "LocalSource.h"
#include "Logging.h"
#include "SnmpAgent.h"

namespace Host {

struct Options {
  SnmpOptions snmp;
  std::vector<std::string> states;  // "local" (at most once), "embedded" or "file:PATH"; never empty
  uint8_t member = 1;
  uint32_t intervalSeconds = Member::MachineFigures::kDefaultIntervalSeconds;
  std::string indexFile;
  std::string toggles;  // empty: all toggles at their default
  bool trelMode = true;
  std::string control;
  LogOptions log;
};

// What the command line says. When the process is to end at once, exitCode is set and what is to be said has
// been written: help and version to standard output (0), what is wrong to standard error, in one line (2).
struct ParsedOptions {
  Options options;
  int exitCode = -1;  // -1: go on
};
ParsedOptions parseOptions(int argc, const char* const* argv);

// Throws std::invalid_argument unless it names a source that this build has.
void checkSource(const std::string& source);

}  // namespace Host
