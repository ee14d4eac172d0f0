// The command line of trelmemberd.
#pragma once

#include <string>

#include "host/TraceLog.h"

namespace Member {

struct Options {
  std::string config;     // path of the configuration
  bool check = false;     // says what is wrong with it, and ends
  bool mappings = false;  // prints the mappings that this machine suggests, and ends
  Host::TraceOptions log;
};

// What the command line says. When the process is to end at once, exitCode is set and what is to be said has
// been written.
struct ParsedOptions {
  Options options;
  int exitCode = -1;  // -1: go on
};
ParsedOptions parseOptions(int argc, const char* const* argv);

}  // namespace Member
