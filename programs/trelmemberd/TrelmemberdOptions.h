// What can be set of trelmemberd: on the command line and in its configuration.
#pragma once

#include <string>

#include "host/TraceLog.h"
#include "member/Config.h"
#include "runtime/Settings.h"

namespace Member {

struct Options {
  Config config;
  bool handover = false;  // leave the rows to a successor at the end
  std::string user;       // to run as; empty: as who started it
  Host::TraceOptions log;
  Runtime::Settings::AtStart atStart;  // to see what a reload does not apply
};

// The table of all settings, for `options`, which it sets when it is read.
Runtime::Settings settingsOf(Options& options);

struct Reading {
  Options options;  // usable only if there are no faults
  Runtime::Findings findings;
};
// Reads what the arguments and their file give, and checks the files for access to the store. Blocks.
Reading readOptions(const Runtime::Arguments& arguments);
// Warns of interfaces that have one ifIndex with the devices that are there now.
void noteDevices(Reading& reading);

struct CommandLine {
  Runtime::Arguments arguments;
  bool check = false;     // only check what is set
  bool mappings = false;  // only print the suggested storage mappings
  int exitCode = -1;      // as Runtime::parseCommandLine() returns it: -1: go on
};
CommandLine parseCommandLine(int argc, const char* const* argv);

}  // namespace Member
