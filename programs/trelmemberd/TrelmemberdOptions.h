// The command line of trelmemberd.
#pragma once

#include <string>

#include "host/TraceLog.h"

namespace Member {

struct Options {
  std::string config;     // the configuration's path
  bool check = false;     // only check the configuration
  bool mappings = false;  // only print the suggested storage mappings
  bool handover = false;  // leave the rows to a successor at the end
  std::string user;       // to run as; empty: as who started it
  Host::TraceOptions log;
};

struct ParsedOptions {
  Options options;
  int exitCode = -1;  // as Runtime::parseCommandLine() returns it: -1: go on
};
ParsedOptions parseOptions(int argc, const char* const* argv);

}  // namespace Member
