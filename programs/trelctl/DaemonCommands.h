// The commands that ask a running daemon: status, tables, wait, store accept.
//
// Errors are thrown: Unusable for arguments, Unreachable for the daemon.
#pragma once

#include <string>

#include "programs/trelctl/ControlClient.h"
#include "programs/trelctl/Defaults.h"

namespace CLI {
class App;
}

namespace TrelCtl {

// The arguments of all of them.
struct DaemonCommands {
  std::string config = kConfigDirectory;
  std::string control;  // empty: the default
  bool json = false;
  bool all = false;
  bool raw = false;
  bool watch = false;
  std::string table;  // empty: all
  std::string format = "text";
  std::string instance;   // to be explained
  std::string object;     // to be inspected; empty: all
  std::string operation;  // of that object, to be called
  std::string file;       // of support; empty: named by the time
  std::string handle;     // of traces; empty: all
  int level = -1;         // to be set; -1: to be shown
  double timeoutSeconds = 10;
  int exitStatus = 0;  // of the command that was run
};

// Adds the commands, which are run when they are parsed. `commands` outlives the parsing.
void describe(CLI::App& app, DaemonCommands& commands);

}  // namespace TrelCtl
